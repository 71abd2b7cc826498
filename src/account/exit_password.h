// The exit password: set in the portal, asked of the person at the terminal, and judged with what the portal says at
// that very moment. Maintenance and the unlock of the terminal settings stand behind it.
#pragma once

#include <string>

namespace kiosk::account {

// Empty when `password` is the exit password; white space around it and letter case do not matter. Otherwise "locked"
// (five attempts without the right one shut the check for 300 s), "busy" (another check is running, or this one cannot
// be counted), "not_enrolled", "not_provisioned", "unreachable" or "wrong_password". Every attempt but "locked" and
// "busy" counts until a right one, whatever becomes of it: in "MaintenanceFailures", flushed before the portal is
// asked; the lock is "MaintenanceLockedUntil". Asks the portal, so it may take a minute: the reply is taken over like
// that of any check-in, and a terminal that turns out to be revoked is torn down on the way. To be called without any
// lock.
std::string VerifyExitPassword(const std::string& password);

}  // namespace kiosk::account
