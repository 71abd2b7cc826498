#pragma once

#include "account/unlock_token.h"
#include "command/request.h"

namespace kiosk::account {

// The command "unlock": opens the terminal settings for the caller's session to whoever knows the exit "password", and
// ends any earlier unlock. Reply: {"ok": true, "unlockToken": text, "expiresInSeconds": 600}, or an error with a code
// of VerifyExitPassword or "failed" (no random bytes). The caller wipes the reply.
json::Value Unlock(const command::Request& request);

}  // namespace kiosk::account
