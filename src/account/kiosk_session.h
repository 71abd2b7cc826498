#pragma once

#include "win32/winapi.h"

#include <string>

#include <vector>

namespace kiosk::account {

// The kiosk account's user name; compared without regard to letter case everywhere.
inline constexpr wchar_t kKioskUser[] = L"NorvaneKiosk";
inline constexpr char kKioskUserText[] = "NorvaneKiosk";  // for log lines

// The name of this computer, as accounts and sessions know it; empty when Windows does not tell.
std::wstring ThisComputer();

// True when the Windows session belongs to the kiosk account: its user is kKioskUser and its domain is this computer's
// name. False as well when Windows does not know the session.
bool IsKioskSession(DWORD sessionId);

// The sessions in which somebody other than the kiosk account is signed in. Empty when Windows does not tell.
std::vector<DWORD> OtherUsersSessions();

// True only when Windows tells of every session, and nobody is signed in to any.
bool NobodyIsSignedIn();

// Signs every session of the kiosk account out (each is logged). With `wait`, looks up to 15 s, and not beyond a stop, until
// they are gone: Windows would wait in its own call without a limit. Returns how many of them are left, without `wait` how
// many could not be signed out.
int LogOffKioskSessions(bool wait);

}  // namespace kiosk::account
