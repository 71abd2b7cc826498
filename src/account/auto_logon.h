// Windows' automatic sign-in: taken over from whoever used it before enrolment, and given back.
#pragma once

#include "win32/lock.h"

#include <cstddef>

namespace kiosk::account {

// The leaf lock of everybody who writes AutoAdminLogon or "Maintenance", so that the two always fit together.
win32::Lock& AutoLogonLock() noexcept;

// Stores the password that Windows signs in with as a secret of the local security authority; null deletes it, also
// when there is none. A failure is logged.
bool StoreAutoLogonSecret(const wchar_t* password, std::size_t length);

// Switches automatic sign-in on or off. The caller holds AutoLogonLock(). A failure is logged.
bool SetAutoAdminLogon(bool on);

// Saves the computer's own settings and marks automatic sign-in as the service's, durably; nothing when it is marked
// already. False when a setting could not be read or saved: then nothing is marked, and nobody may change the settings.
bool TakeOverAutoLogon();

// Puts the computer's own settings back and deletes the secret, unless automatic sign-in names another user by now:
// that is somebody's choice and stays. Either way it is the service's no longer. Nothing without the mark.
void RestoreAutoLogon();

}  // namespace kiosk::account
