#pragma once

#include <string>

namespace kiosk::account {

// Deletes the profile of that SID text, in up to 10 attempts a second apart that end early at a stop. True when it is gone
// or there never was one; a failure is logged.
bool DeleteKioskProfile(const std::wstring& sid);

}  // namespace kiosk::account
