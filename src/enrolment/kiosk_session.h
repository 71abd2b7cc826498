#pragma once

#include "win32/winapi.h"

#include <optional>
#include <vector>

namespace kiosk::enrolment {

// The kiosk account's user name; compared without regard to letter case everywhere.
inline constexpr wchar_t kKioskUser[] = L"NorvaneKiosk";
inline constexpr char kKioskUserText[] = "NorvaneKiosk";  // for log lines

// True when the Windows session belongs to the kiosk account: its user is kKioskUser and its domain is this computer's
// name. False as well when Windows does not know the session.
bool IsKioskSession(DWORD sessionId);

// The sessions in which somebody other than the kiosk account is signed in. Empty optional when Windows does not tell.
std::optional<std::vector<DWORD>> OtherUsersSessions();

// True only when Windows tells of every session, and nobody is signed in to any.
bool NobodyIsSignedIn();

// Whether the kiosk account has a session. Empty optional when Windows does not tell.
std::optional<bool> KioskIsSignedIn();

// Signs every session of the kiosk account out; each is logged. Without `wait`, true when all were asked to end. With
// it, looks until they are gone, for at most 15 s and not beyond a stop (Windows' own wait has no limit), and is true
// when none is left. A list of sessions that cannot be read is logged and never counts as empty.
bool LogOffKioskSessions(bool wait);

}  // namespace kiosk::enrolment
