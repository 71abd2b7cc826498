// The kiosk user sees the client program and nothing else: values in that user's own part of the registry.
#pragma once

#include <string>

namespace kiosk::lockdown {

enum class PolicyResult {
  kDone,
  kNoHive,  // the file of the profile's settings is missing or damaged
  kFailed,
};

// Writes the lockdown for the user of that SID, where it differs from what stands there. Works on the user's settings
// while they are signed in; otherwise, with `loadHive`, on the file of their profile, and without it writes nothing and
// succeeds. A hive that was left loaded is unloaded first. `clientInstallDir` is the client program's folder without a
// trailing slash. Failures are logged.
PolicyResult WriteKioskUserPolicies(const std::wstring& sid, const std::wstring& clientInstallDir, bool loadHive);

// Unloads a profile's settings that were left loaded: as long as they are, the profile cannot be deleted and its user
// gets a temporary one. Tried for up to 5 s, but not beyond a stop.
void UnloadLeftOverHive();

}  // namespace kiosk::lockdown
