#include "account/unlock.h"

#include "account/exit_password.h"
#include "command/reply.h"
#include "log/log.h"

namespace kiosk::account {

json::Value Unlock(const command::Request& request) {
  if (const std::string code = VerifyExitPassword(json::Member(request.members, "password").text()); !code.empty()) {
    log::Log(log::kWarn, log::kKiosk, "terminal settings unlock refused: %s", code.c_str());
    return command::ErrorReply(code);
  }
  const text::Secret token = NewUnlockToken(request.session);
  if (token.Empty()) {
    return command::ErrorReply("failed");
  }
  log::Log(log::kNotice, log::kKiosk, "terminal settings unlocked for session %lu, %llu s", request.session,
           static_cast<unsigned long long>(kUnlockSeconds));
  json::Value reply = command::OkReply();
  reply.Set("unlockToken", token.Get());
  reply.Set("expiresInSeconds", kUnlockSeconds);
  return reply;
}

}  // namespace kiosk::account
