#pragma once

#include "win32/winapi.h"

namespace kiosk::account {

// The kiosk account's user name; compared without regard to letter case everywhere.
inline constexpr wchar_t kKioskUser[] = L"NorvaneKiosk";

// True when the Windows session belongs to the kiosk account: its user is kKioskUser and its domain is this computer's
// name. False as well when Windows does not know the session.
bool IsKioskSession(DWORD sessionId);

}  // namespace kiosk::account
