// Turns an enrolled computer into a kiosk, step by step; each step can be repeated, and "Provisioned" is written last.
#pragma once

#include <string>

namespace kiosk::account {

// The answer when the terminal is no longer enrolled with the token by the time the lock is had; neither logged nor
// recorded, and nothing was changed.
inline constexpr char kNoLongerEnrolled[] = "revoked";

// Makes the account, its groups, automatic sign-in, profile and lockdown. Empty on success; otherwise the failure's
// code
// ("no_client", "account_exists" ...), which is also logged and shown as the last error. Takes the account lock.
// A stop of the service before another process is done with the account is "state_write_failed" without a log line.
// `tokenUsed` is the token whose check-in led here; the enrolment is tested once more under the lock. Empty: not
// tested.
std::string ProvisionKioskAccount(const std::string& tokenUsed);

// The same for the worker: success without doing anything when the account turns out to be provisioned already, and
// when it was and Windows cannot tell at the moment whether it still exists.
std::string ProvisionIfNeeded(const std::string& tokenUsed);

// Writes the lockdown into the kiosk user's settings again, where it differs, while that user is signed in. Takes the
// account lock. Does nothing without a recorded account, a client program or a profile.
void ApplyKioskPolicies();

}  // namespace kiosk::account
