#pragma once

#include "command/request.h"

namespace kiosk::pipe {

// The command "status": where the terminal stands. What cannot be read shows as false or an empty text.
json::Value Status(const command::Request& request);

}  // namespace kiosk::pipe
