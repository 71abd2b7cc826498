// The one unlock of the terminal settings: a random token that belongs to one Windows session for ten minutes. It lives
// in memory alone. A leaf of its own: unlocking makes it, maintenance and teardown end it.
#pragma once

#include "text/secret.h"
#include "win32/winapi.h"

#include <cstdint>
#include <string>

namespace kiosk::account {

inline constexpr std::uint64_t kUnlockSeconds = 600;

// Draws a token of 32 lower-case hexadecimal characters and makes it the only valid one, for `session`, from now on.
// Empty when there are no random bytes; an earlier unlock then stays.
text::Secret NewUnlockToken(DWORD session);

// True when `token` is the valid one, character by character, and belongs to `session`. The time it takes tells nothing
// about where a wrong token differs. An unlock whose time is over ends here, with a log line.
bool CheckUnlockToken(const std::string& token, DWORD session);

// Ends the unlock, whosever it is.
void DropUnlock() noexcept;

// Ends the unlock of a session that signed out. The control handler calls it too: it waits for nothing.
void OnSessionSignedOut(DWORD session);

}  // namespace kiosk::account
