#pragma once

#include "json/value.h"
#include "win32/winapi.h"

namespace kiosk::pipe {

// Where the terminal stands, as the reply to "status". What cannot be read shows as false or an empty text. `pipe`
// tells the caller's session.
json::Value StatusReport(HANDLE pipe);

}  // namespace kiosk::pipe
