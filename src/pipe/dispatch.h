// From the request text of an admitted caller to the reply.
#pragma once

#include "command/request.h"
#include "pipe/caller.h"

#include <string_view>

namespace kiosk::pipe {

// Runs the command that `request` names for the admitted `caller` and returns its reply; every refusal is a reply too.
// What the command leaves to be done after the reply goes into `afterReply`, which otherwise stays as it is. Runs on
// the connection's thread, any number of them at once.
json::Value Dispatch(const CallerRecord& caller, std::string_view request, command::PostReplyAction& afterReply);

}  // namespace kiosk::pipe
