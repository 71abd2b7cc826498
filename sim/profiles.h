// Profiles and hives of the simulated machine. A profile is a key of the profile list, a folder below C:\users and in
// it a hive file that really loads. The area "Hives" holds the file of each hive that was loaded below HKEY_USERS; a
// hive stays loaded when the process that loaded it ends. What Windows gives every user at first is the key
// "Environment" of the hive: a file that RegLoadKeyW makes lacks it, and nobody is signed in with that.
#pragma once

#include "sim/machine.h"

#include <string>

namespace sim {

inline constexpr wchar_t kProfileListKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

// The folder; empty without a profile.
std::wstring ProfileFolder(const std::wstring& sid);
// What Windows does at the first sign-in, CreateProfile and DeleteProfileW: Windows errors. CreateProfile is two
// changes, the folder with its entry in the list and the hive file, so that a fault may come between.
DWORD MakeProfile(const std::wstring& sid, const std::wstring& user);
DWORD RemoveProfile(const std::wstring& sid);
// Unloads all hives and removes the profiles of all accounts that ever were: for the start of a test.
void ForgetProfiles();
// So many calls of DeleteProfileW fail with ERROR_SHARING_VIOLATION; INFINITE: all of them.
inline const Field<> profilesBusy{L"", L"ProfilesBusy"};

// Below HKEY_USERS: Windows errors. No privileges are asked for. As its page says, RegLoadKeyW makes a file that does
// not exist.
DWORD LoadHive(const std::wstring& name, const std::wstring& file);
DWORD UnloadHive(const std::wstring& name);
bool HiveLoaded(const std::wstring& name);
// Loads the hive of an account that signs in; false where Windows would make do with a temporary profile.
bool LoadUserHive(const std::wstring& sid);

}  // namespace sim
