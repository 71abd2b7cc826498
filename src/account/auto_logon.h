// Windows' automatic sign-in: taken over from whoever used it before enrolment, kept while Windows itself changes it,
// and given back.
#pragma once

#include "win32/lock.h"

namespace kiosk::account {

// The leaf lock of everybody who writes the names, AutoAdminLogon or "Maintenance", so that they always fit together.
win32::Lock& AutoLogonLock() noexcept;

// Switches automatic sign-in on or off. The caller holds AutoLogonLock(). A failure is logged.
bool SetAutoAdminLogon(bool on) REQUIRES(AutoLogonLock());

// Writes the kiosk account's names where KioskNamesAreDue() said so. The caller asked that before it took
// AutoLogonLock(), which it holds. Logged.
void PutKioskNamesBack() REQUIRES(AutoLogonLock());

// Puts the kiosk account's names back where Windows, or a new name of the computer, took their place. Writes and asks
// nothing otherwise. May ask the local security authority, so neither the control handler nor a holder of a leaf comes
// here.
void ReclaimAutoLogon();

// The same at the start of the service, and for an enrolment of an earlier version: notes whose the present secret is.
void RepairAutoLogon();

// The same after a good check-in: only while the kiosk is to sign in by itself.
void KeepAutoLogon();

// Saves the computer's own settings and marks automatic sign-in as the service's, durably; nothing when it is marked
// already. False when a setting could not be read or saved: then nothing is marked, and nobody may change the settings.
bool TakeOverAutoLogon();

// Puts the computer's own settings back and deletes the secret, unless automatic sign-in is another user's by now: that
// is somebody's choice and stays. Either way it is the service's no longer. Nothing without the mark.
void RestoreAutoLogon();

}  // namespace kiosk::account
