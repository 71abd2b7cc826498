// Leaving kiosk mode: the computer is given back as it was before enrolment.
#pragma once

#include "account/account_lock.h"

#include <string>

namespace kiosk::account {

// Takes kiosk mode down, under the account lock and across processes: every setting of the computer's that the service
// replaced goes back (sign-in, power, updates, proxy, network), the kiosk account, its sessions, profile and branding
// go, and so do all values of the state key but "AuthBaseUrl", "DevAllowUnsigned" and the count and lock of the exit
// password. What cannot be removed yet stays marked ("TeardownPending"); FinishPendingRemoval tries that again, and
// resumes a teardown that was cut short at any moment. At last the pairing in progress is forgotten, for which the
// caller holds neither the pairing nor the account lock.
//
// `deleteStateKey` deletes the whole Kiosk state key when everything else is gone. `reason` goes into the log. With
// `onlyIfToken`, nothing happens unless that is the stored device token.
void RemoveKioskMode(bool deleteStateKey, const char* reason, const std::string* onlyIfToken = nullptr);

// Completes a teardown that was cut short or could not remove the account, unless a newer token calls it off; and tries
// the profiles of earlier accounts that could not be deleted, at start and once an hour. Takes the account lock, and
// the pairing lock after it; neither when there is nothing to do.
void FinishPendingRemoval();

}  // namespace kiosk::account
