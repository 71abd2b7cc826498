// The envelope that all answers on the local pipe share: "ok" first, then either the command's own members or "error".
#pragma once

#include "json/value.h"

#include <string_view>

namespace kiosk::json {

// What a command leaves to be done once its reply has been sent and the connection is closed; null for nothing.
using PostReplyAction = void (*)();

// {"ok": true}, to which the command adds its members.
Value OkReply();

// {"ok": false, "error": code}
Value ErrorReply(std::string_view code);

}  // namespace kiosk::json
