// What the handler of a pipe command gets. The handlers are the functions that the table in pipe/dispatch.cpp names.
#pragma once

#include "json/value.h"
#include "win32/winapi.h"

namespace kiosk::command {

// What a command leaves to be done once its reply has been sent and the connection is closed; null for nothing.
using PostReplyAction = void (*)();

struct Request {
  const json::Value& members;   // an object; it may hold a password, so the dispatcher wipes it
  DWORD session;                // the Windows session of the caller
  PostReplyAction& afterReply;  // the handler may set it; null until then
};

// Runs the command and returns its whole reply. On the connection's thread, any number of them at once; the caller
// holds no lock.
using Handler = json::Value (*)(const Request& request);

}  // namespace kiosk::command
