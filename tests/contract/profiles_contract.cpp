// Profiles of users, and their hives.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <userenv.h>

namespace contract {
namespace {

using kiosk::win32::KernelHandle;

constexpr wchar_t kHive[] = L"NorvaneProof";
constexpr wchar_t kProfileList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";

// Loading a hive wants both.
void TakePrivileges() {
  KernelHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put());
  for (const wchar_t* name : {L"SeBackupPrivilege", L"SeRestorePrivilege"}) {
    TOKEN_PRIVILEGES privileges{1, {{{0, 0}, SE_PRIVILEGE_ENABLED}}};
    LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid);
    AdjustTokenPrivileges(token.Get(), FALSE, &privileges, 0, nullptr, nullptr);
  }
}

LSTATUS Load(const std::wstring& file) { return RegLoadKeyW(HKEY_USERS, kHive, file.c_str()); }
LSTATUS Unload() { return RegUnLoadKeyW(HKEY_USERS, kHive); }

// A user's profile that goes before he does.
class Profile {
 public:
  Profile() {
    const HRESULT made = CreateProfile(user_.Sid().c_str(), LocalUser::kName, path_, MAX_PATH);
    SetLastError(static_cast<DWORD>(made));
    Asked::Needs(SUCCEEDED(made), "a profile");
  }
  Profile(const Profile&) = delete;
  Profile& operator=(const Profile&) = delete;
  ~Profile() { DeleteProfileW(user_.Sid().c_str(), nullptr, nullptr); }
  [[nodiscard]] std::wstring Sid() const { return user_.Sid(); }
  [[nodiscard]] std::wstring Path() const { return path_; }

 private:
  LocalUser user_;
  wchar_t path_[MAX_PATH]{};
};

void ProfilesAreListed(Asked& asked) {
  const Profile profile;
  asked.True("its folder", GetFileAttributesW(profile.Path().c_str()) != INVALID_FILE_ATTRIBUTES);
  asked.True("its hive file",
             GetFileAttributesW((profile.Path() + L"\\NTUSER.DAT").c_str()) != INVALID_FILE_ATTRIBUTES);
  wchar_t listed[MAX_PATH]{};
  DWORD size = sizeof(listed);
  asked.Same("the profile list",
             RegGetValueW(HKEY_LOCAL_MACHINE, (kProfileList + profile.Sid()).c_str(), L"ProfileImagePath",
                          RRF_RT_REG_SZ, nullptr, listed, &size),
             ERROR_SUCCESS);
  asked.True("the folder in it", _wcsicmp(listed, profile.Path().c_str()) == 0);
}

// "CreateProfile function": HRESULT of ERROR_ALREADY_EXISTS.
void ProfilesAreMadeOnce(Asked& asked) {
  const Profile profile;
  wchar_t path[MAX_PATH];
  asked.Same("a second time", CreateProfile(profile.Sid().c_str(), LocalUser::kName, path, MAX_PATH),
             HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
}

void DeletedProfilesAreGone(Asked& asked) {
  const Profile profile;
  asked.True("DeleteProfileW", DeleteProfileW(profile.Sid().c_str(), nullptr, nullptr) != 0);
  asked.True("the folder is gone", GetFileAttributesW(profile.Path().c_str()) == INVALID_FILE_ATTRIBUTES);
  asked.Fails("a second time", DeleteProfileW(profile.Sid().c_str(), nullptr, nullptr) != 0, {ERROR_FILE_NOT_FOUND});
}

void LoadedHivesKeepTheirProfile(Asked& asked) {
  TakePrivileges();
  const Profile profile;
  Asked::Needs(Load(profile.Path() + L"\\NTUSER.DAT") == ERROR_SUCCESS, "the profile's hive");
  const AtEnd unload([] { Unload(); });
  asked.True("DeleteProfileW fails", DeleteProfileW(profile.Sid().c_str(), nullptr, nullptr) == 0);
  asked.Tells("with", GetLastError());
}

// "RegLoadKeyW function": a file that does not exist is made.
void MissingHivesAreMade(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine makes no hive");
  TakePrivileges();
  const Folder folder;
  const std::wstring file = folder.Path(L"hive");
  asked.Same("RegLoadKeyW", Load(file), ERROR_SUCCESS);
  asked.True("the file is there", GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES);
  asked.Same("RegUnLoadKeyW", Unload(), ERROR_SUCCESS);
}

void OpenKeysKeepAHive(Asked& asked) {
  TakePrivileges();
  const Folder folder;
  Asked::Needs(Load(folder.Path(L"hive")) == ERROR_SUCCESS, "a hive");
  kiosk::win32::RegistryKey key;
  asked.Same("a key of it", RegOpenKeyExW(HKEY_USERS, kHive, 0, KEY_READ, key.Put()), ERROR_SUCCESS);
  asked.Same("RegUnLoadKeyW beside it", Unload(), ERROR_ACCESS_DENIED);
  key.Reset();
  asked.Same("RegUnLoadKeyW then", Unload(), ERROR_SUCCESS);
}

constexpr Case kCases[] = {
    {"create", "a profile has a folder, a hive file and an entry in the list", ProfilesAreListed},
    {"once", "a second profile of a user is refused", ProfilesAreMadeOnce},
    {"delete", "a deleted profile is gone, and says so", DeletedProfilesAreGone},
    {"loaded", "a profile whose hive is loaded is not deleted", LoadedHivesKeepTheirProfile},
    {"missing hive", "a hive file that is missing is made", MissingHivesAreMade},
    {"open key", "a hive with an open key is not unloaded", OpenKeysKeepAHive},
};

}  // namespace

extern const Group kProfiles;
const Group kProfiles{"profiles", kCases};

}  // namespace contract
