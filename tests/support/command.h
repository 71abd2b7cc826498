// A pipe command as its handler gets it.
#pragma once

#include "command/request.h"
#include "json/parse.h"

#include <string>

namespace kiosk::test {

// The reply of `handler` to the members of `request` from that session; what it leaves to be done goes into `left`.
inline json::Value Ask(command::Handler handler, const std::string& request = "{}", DWORD session = 0,
                       command::PostReplyAction* left = nullptr) {
  const json::Value members = *json::Parse(request);
  command::PostReplyAction afterReply = nullptr;
  json::Value reply = handler({members, session, left != nullptr ? *left : afterReply});
  return reply;
}

// The members of "unlock" and "maintenance".
inline std::string Credentials(const std::string& password, const std::string& unlockToken = {}) {
  return R"({"password":")" + password + R"(","unlockToken":")" + unlockToken + "\"}";
}

}  // namespace kiosk::test
