// Turns an enrolled computer into a kiosk, step by step; each step can be repeated, and "Provisioned" is written last.
#pragma once

#include <string>

namespace kiosk::account {

// The answer when the terminal is no longer enrolled with the token once the lock is taken: nothing is changed, logged
// or recorded.
inline constexpr char kEnrolmentOver[] = "revoked";

// Makes the account, its groups, automatic sign-in, profile and lockdown. Empty on success; otherwise the code of the
// failure ("no_client", "account_exists" ...), which is logged and written as "LastError". "Provisioned" and
// "TeardownPending" are deleted at the start; on the way "AccountSid", "AccountCreating", "StaleProfileSids",
// "OwnsHideFastUserSwitching", "AutoLogonDigest" and what TakeOverAutoLogon writes; at the end "LastError" is deleted.
//
// `tokenUsed` is the token whose check-in led here: whether the terminal is still enrolled with it is asked once more
// under the account lock, which this takes. An empty one is not asked about. When the service stops before another
// process is done with the account, that is "state_write_failed" without a log line.
std::string ProvisionKioskAccount(const std::string& tokenUsed);

// The same for the worker, which does nothing, successfully, when all is set up, or Windows cannot tell at the moment
// whether it is.
std::string ProvisionIfNeeded(const std::string& tokenUsed);

// Writes the lockdown into the kiosk user's settings again, where it differs, while that user is signed in. Takes the
// account lock. Does nothing without a recorded account, a client program or a profile.
void ApplyKioskPolicies();

}  // namespace kiosk::account
