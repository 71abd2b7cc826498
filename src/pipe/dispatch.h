// From the request text of an admitted caller to the reply.
#pragma once

#include "json/reply.h"
#include "pipe/caller.h"

#include <string_view>

namespace kiosk::pipe {

// The admitted client of one connection.
struct Client {
  HANDLE pipe;
  const CallerRecord& caller;
};

// Runs the command that `request` names and returns its reply; every refusal is a reply too. What the command leaves to
// be done after the reply goes into `afterReply`, which otherwise stays as it is. Runs on the connection's thread, any
// number of them at once.
json::Value Dispatch(const Client& client, std::string_view request, json::PostReplyAction& afterReply);

}  // namespace kiosk::pipe
