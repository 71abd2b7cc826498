// The envelope that all answers on the local pipe share: "ok" first, then either the command's own members or "error".
#pragma once

#include "json/value.h"

#include <string_view>

namespace kiosk::command {

// {"ok": true}, to which the command adds its members.
json::Value OkReply();

// {"ok": false, "error": code}
json::Value ErrorReply(std::string_view code);

}  // namespace kiosk::command
