// Windows' automatic sign-in: taken over from whoever used it before enrolment, kept while Windows itself changes it,
// and given back.
#pragma once

#include "win32/lock.h"

namespace kiosk::account {

// The leaf lock of everybody who writes the names, AutoAdminLogon or "Maintenance", so that they always fit together.
win32::Lock& AutoLogonLock() noexcept;

// Switches automatic sign-in on or off. The caller holds AutoLogonLock(). A failure is logged.
bool SetAutoAdminLogon(bool on) REQUIRES(AutoLogonLock());

// Writes the kiosk account's names. Logged. The caller has asked KioskNamesAreDue() before it took AutoLogonLock(),
// which it holds.
void PutKioskNamesBack() REQUIRES(AutoLogonLock());

// Puts the kiosk account's names back where Windows, or a new name of the computer, took their place. Writes and asks
// nothing otherwise. May ask the local security authority, so neither the control handler nor a holder of a leaf comes
// here.
void ReclaimAutoLogon();

// The same at the start of the service, and for an enrolment of an earlier version: notes whose the present secret is.
void RepairAutoLogon();

// The same after a good check-in: only while the kiosk is to sign in by itself.
void KeepAutoLogon();

// Copies the computer's own settings into the state key (the "Prior" values and "MadeSignInKeys") and marks automatic
// sign-in as the service's ("OwnsAutoLogon"), durably. When it is marked already, only a restore that was cut short is
// called off ("AutoLogonRestoring"). False when a setting could not be read or saved: then nothing is marked, and
// nobody may change the settings.
bool TakeOverAutoLogon();

// Puts the computer's own settings back and deletes the secret, unless automatic sign-in is another user's by now: that
// is somebody's choice and stays. Either way the mark, the copies, "AutoLogonRestoring" and "AutoLogonDigest" go;
// "MadeSignInKeys" stays for whoever deletes these keys. Without the mark no setting is touched, and copies that a
// take-over or a restore left behind go. Logged, but for copies without a mark. What it goes by and cannot read stays,
// mark and copies with it, for another call.
void RestoreAutoLogon();

}  // namespace kiosk::account
