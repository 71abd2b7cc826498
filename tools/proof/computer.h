// What the kit must know of the computer before it changes anything there.
#pragma once

#include "json/value.h"
#include "win32/winapi.h"

#include <string>

namespace proof {

// The head of a report: versions, what the computer is, who runs this. Nothing that names a person.
kiosk::json::Value Head(const std::wstring& product);

// A sentence when a run must not begin here; `named`: whoever runs the kit has typed this computer's name, and so means
// it although the computer does not look like one that nobody needs.
std::string WhyNotHere(bool named, const std::wstring& product);

// The session of the kiosk account; 0: it has none, or Windows does not tell.
DWORD KioskSession();

// Whether this thread acts for a member of the group, by its SID.
bool IsMember(const wchar_t* group);

}  // namespace proof
