#include "account/unlock.h"

#include "account/exit_password.h"
#include "json/reply.h"
#include "log/log.h"

namespace kiosk::account {

json::Value Unlock(const std::string& password, DWORD session) {
  if (const std::string code = VerifyExitPassword(password); !code.empty()) {
    log::Log(log::kWarn, log::kKiosk, "terminal settings unlock refused: %s", code.c_str());
    return json::ErrorReply(code);
  }
  const text::Secret token = NewUnlockToken(session);
  if (token.Empty()) {
    return json::ErrorReply("failed");
  }
  log::Log(log::kNotice, log::kKiosk, "terminal settings unlocked for session %lu, %llu s", session,
           static_cast<unsigned long long>(kUnlockSeconds));
  json::Value reply = json::OkReply();
  reply.Set("unlockToken", token.Get());
  reply.Set("expiresInSeconds", kUnlockSeconds);
  return reply;
}

}  // namespace kiosk::account
