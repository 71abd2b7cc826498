// Leaving kiosk mode: the computer is given back as it was before enrolment.
#pragma once

#include "account/account_lock.h"

#include <string>

namespace kiosk::account {

// Takes kiosk mode down, under the account lock and across processes: auto sign-in and the fast-user-switching policy
// go back, the kiosk account, its sessions and its profile go, the enrolment state is erased. What cannot be removed
// yet stays marked ("TeardownPending"), and FinishPendingRemoval tries again. Cut short at any moment, it is resumed by
// the latter. Afterwards the pairing in progress is forgotten, for which the caller holds neither the pairing nor the
// account lock.
//
// `deleteStateKey` deletes the whole Kiosk state key when everything else is gone. `reason` goes into the log. With
// `onlyIfToken`, nothing happens unless that is the stored device token.
void RemoveKioskMode(bool deleteStateKey, const char* reason, const std::string* onlyIfToken = nullptr);

// Signs out and deletes the local user of that SID, and its profile even where the user is gone or another now bears
// the name. False when something of it is left; logged. The caller holds the account lock.
bool DeleteKioskAccount(const std::wstring& recordedSid) REQUIRES(AccountLock());

// Completes a teardown that was interrupted or could not remove the account, and tries the profiles of earlier accounts
// that could not be deleted, at start and once an hour. Cheap when there is nothing of that.
void FinishPendingRemoval();

}  // namespace kiosk::account
