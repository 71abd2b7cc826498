#pragma once

#include "account/unlock_token.h"
#include "json/value.h"

namespace kiosk::account {

// The command "unlock": opens the terminal settings for the caller's session to whoever knows the exit password, and
// ends any earlier unlock. Reply: {"ok": true, "unlockToken": text, "expiresInSeconds": 600}, or an error with a code
// of VerifyExitPassword or "failed" (no random bytes). The caller wipes the reply. Called without any lock.
json::Value Unlock(const std::string& password, DWORD session);

}  // namespace kiosk::account
