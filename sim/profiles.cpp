#include "sim/profiles.h"

#include "sim/accounts.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/sessions.h"
#include "sim/shutdown.h"

#include <userenv.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace sim {
namespace {

constexpr wchar_t kHives[] = L"Hives";

// This process holds a key of the hive. Handles are multiples of 4; a few thousand are more than any test has.
bool HeldOpen(const std::wstring& name) {
  const std::wstring root = L"\\REGISTRY\\USER\\" + name;
  for (std::uintptr_t value = 4; value < 0x2000; value += 4) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): handles are numbers, and all of them are tried
    const std::wstring key = RegistryObject(reinterpret_cast<HKEY>(value), nullptr);
    if (_wcsnicmp(key.c_str(), root.c_str(), root.size()) == 0 &&
        (key.size() == root.size() || key[root.size()] == L'\\')) {
      return true;
    }
  }
  return false;
}

// Wine's own checks want the privileges in the real token; whether the service enabled them is kept apart.
void AllowHives() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token)) {
    return;
  }
  for (const wchar_t* name : {SE_BACKUP_NAME, SE_RESTORE_NAME}) {
    TOKEN_PRIVILEGES privileges{1, {{{}, SE_PRIVILEGE_ENABLED}}};
    LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid);
    AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
  }
  CloseHandle(token);
}

DWORD Save(HKEY root, const std::wstring& subkey, const std::wstring& file) {
  HKEY key = nullptr;
  DeleteFileW(file.c_str());
  LSTATUS error = RegOpenKeyExW(root, subkey.c_str(), 0, KEY_READ, &key);
  if (error == ERROR_SUCCESS) {
    error = RegSaveKeyW(key, file.c_str(), nullptr);
    RegCloseKey(key);
  }
  return static_cast<DWORD>(error);
}

// Whether some hive below HKEY_USERS comes from the file.
bool FileInUse(const std::wstring& file) {
  const std::vector<std::wstring> names = ValueNames(kHives);
  return std::any_of(names.begin(), names.end(), [&file](const std::wstring& name) {
    return HiveLoaded(name) && _wcsicmp(ReadText(kHives, name).value_or(L"").c_str(), file.c_str()) == 0;
  });
}

std::wstring KeyOf(const std::wstring& sid) { return std::wstring(kProfileListKey) + L"\\" + sid; }

DWORD CheckHiveCall(const char* function, HKEY root, LPCWSTR name) {
  if (root != HKEY_USERS || name == nullptr) {
    Violation("%s: only hives below HKEY_USERS are simulated", function);
    return ERROR_INVALID_PARAMETER;
  }
  return PrivilegeEnabled(SE_BACKUP_NAME) && PrivilegeEnabled(SE_RESTORE_NAME) ? ERROR_SUCCESS
                                                                               : ERROR_PRIVILEGE_NOT_HELD;
}

// The folder and its entry in the list.
DWORD BeginProfile(const std::wstring& sid, const std::wstring& user) {
  if (!FindUser(sid)) {
    return ERROR_NONE_MAPPED;
  }
  if (!ProfileFolder(sid).empty()) {
    return ERROR_ALREADY_EXISTS;
  }
  // A folder that somebody else left is not used again.
  std::wstring name = user;
  for (int tries = 0; !CreateDirectoryW((L"C:\\users\\" + name).c_str(), nullptr); ++tries) {
    if (GetLastError() != ERROR_ALREADY_EXISTS || tries > 9) {
      return GetLastError();
    }
    name = user + L"." + ComputerName() + (tries == 0 ? L"" : L".00" + std::to_wstring(tries));
  }
  SetRegistryText(KeyOf(sid), L"ProfileImagePath", L"%SystemDrive%\\users\\" + name, REG_EXPAND_SZ);
  return ERROR_SUCCESS;
}

// A hive file with this key below its root, or with nothing.
DWORD WriteHiveFile(const std::wstring& file, const std::wstring& key) {
  constexpr wchar_t kModel[] = L"ModelHive";
  AllowHives();
  WriteText(kModel + key, L"", L"");
  const DWORD error = Save(HKEY_LOCAL_MACHINE, std::wstring(kMachineKey) + L"\\" + kModel, file);
  ForgetArea(kModel);
  return error;
}

DWORD FillProfile(const std::wstring& sid) {
  return WriteHiveFile(ProfileFolder(sid) + L"\\NTUSER.DAT", L"\\Environment");
}

}  // namespace

bool HiveLoaded(const std::wstring& name) {
  HKEY key = nullptr;
  if (!ReadText(kHives, name) || RegOpenKeyExW(HKEY_USERS, name.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(key);
  return true;
}

DWORD LoadHive(const std::wstring& name, const std::wstring& file) {
  if (GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES && WriteHiveFile(file, L"") != ERROR_SUCCESS) {
    return ERROR_PATH_NOT_FOUND;
  }
  AllowHives();
  if (FileInUse(file)) {
    return ERROR_SHARING_VIOLATION;
  }
  const LSTATUS error = ::RegLoadKeyW(HKEY_USERS, name.c_str(), file.c_str());
  if (error == ERROR_SUCCESS) {
    WriteText(kHives, name, file);
  } else if (error == ERROR_NOT_REGISTRY_FILE) {
    ::RegUnLoadKeyW(HKEY_USERS, name.c_str());
  }
  return static_cast<DWORD>(error);
}

bool LoadUserHive(const std::wstring& sid) {
  HKEY key = nullptr;
  if ((!HiveLoaded(sid) && LoadHive(sid, ProfileFolder(sid) + L"\\NTUSER.DAT") != ERROR_SUCCESS) ||
      RegOpenKeyExW(HKEY_USERS, (sid + L"\\Environment").c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(key);
  return true;
}

// Windows writes a hive back as it is unloaded; Wine drops what changed.
DWORD UnloadHive(const std::wstring& name) {
  AllowHives();
  if (!HiveLoaded(name)) {
    ForgetValue(kHives, name);
    return ERROR_FILE_NOT_FOUND;
  }
  if (HeldOpen(name)) {
    return ERROR_ACCESS_DENIED;
  }
  const std::wstring file = ReadText(kHives, name).value_or(L"");
  const std::wstring saved = file + L".saved";
  const bool kept = Save(HKEY_USERS, name, saved) == ERROR_SUCCESS;
  const LSTATUS error = ::RegUnLoadKeyW(HKEY_USERS, name.c_str());
  if (error == ERROR_SUCCESS) {
    ForgetValue(kHives, name);
    if (!kept || !MoveFileExW(saved.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING)) {
      Violation("the hive %s could not be written back (%lu)", Narrow(name).c_str(), GetLastError());
    }
  }
  return static_cast<DWORD>(error);
}

std::wstring ProfileFolder(const std::wstring& sid) {
  return RegistryText(KeyOf(sid), L"ProfileImagePath").value_or(L"");
}

DWORD MakeProfile(const std::wstring& sid, const std::wstring& user) {
  const DWORD error = BeginProfile(sid, user);
  return error == ERROR_SUCCESS ? FillProfile(sid) : error;
}

DWORD RemoveProfile(const std::wstring& sid) {
  const std::wstring folder = ProfileFolder(sid);
  if (folder.empty()) {
    return ERROR_FILE_NOT_FOUND;
  }
  const DWORD busy = ReadNumber(L"", L"ProfilesBusy").value_or(0);
  if (busy != 0 && busy != INFINITE) {
    KeepProfilesBusy(busy - 1);
  }
  if (busy != 0 || HiveLoaded(sid) || FileInUse(folder + L"\\NTUSER.DAT") || SessionOf(sid) != 0) {
    return ERROR_SHARING_VIOLATION;
  }
  std::error_code error;
  std::filesystem::remove_all(folder, error);
  if (error) {
    return static_cast<DWORD>(error.value());
  }
  return static_cast<DWORD>(RegDeleteTreeW(HKEY_LOCAL_MACHINE, KeyOf(sid).c_str()));
}

void ForgetProfiles() {
  for (const std::wstring& name : ValueNames(kHives)) {
    UnloadHive(name);
  }
  HKEY list = nullptr;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProfileListKey, 0, KEY_READ, &list);
  wchar_t sid[256];
  for (DWORD i = 0; RegEnumKeyW(list, i, sid, 256) == ERROR_SUCCESS;) {
    if (!std::wstring_view(sid).starts_with(kMachineSid)) {
      ++i;
      continue;
    }
    std::error_code ignored;
    std::filesystem::remove_all(ProfileFolder(sid), ignored);
    RegDeleteTreeW(list, sid);
  }
  RegCloseKey(list);
}

void KeepProfilesBusy(DWORD calls) { WriteNumber(L"", L"ProfilesBusy", calls); }

}  // namespace sim

using namespace sim;

SIM(HRESULT, CreateProfile, LPCWSTR sid, LPCWSTR user, LPWSTR path, DWORD size) {
  if (sid == nullptr || user == nullptr || path == nullptr || size == 0) {
    Violation("CreateProfile: a pointer is null");
    return E_INVALIDARG;
  }
  DWORD error = Change<DWORD>(__func__ + 4, sid, [&] { return BeginProfile(sid, user); });
  if (error == ERROR_SUCCESS) {
    error = Change<DWORD>(__func__ + 4, std::wstring(sid) + L" hive", [&] { return FillProfile(sid); });
  }
  const std::wstring folder = ProfileFolder(sid);
  if (error == ERROR_SUCCESS && folder.size() >= size) {
    Violation("CreateProfile: no room for the path in %lu characters", size);
    return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  }
  if (error == ERROR_SUCCESS) {
    std::copy_n(folder.c_str(), folder.size() + 1, path);
  }
  return HRESULT_FROM_WIN32(error);
}

SIM(WINBOOL, DeleteProfileW, LPCWSTR sid, LPCWSTR path, LPCWSTR computer) {
  if (sid == nullptr || path != nullptr || computer != nullptr) {
    Violation("DeleteProfileW: no SID, or a path or another machine");
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return Change<BOOL>(__func__ + 4, sid, [&]() -> BOOL {
    const DWORD error = RemoveProfile(sid);
    SetLastError(error);
    return error == ERROR_SUCCESS;
  });
}

SIM(LSTATUS, RegLoadKeyW, HKEY root, LPCWSTR name, LPCWSTR file) {
  return Change<LSTATUS>(__func__ + 4, name, [&] {
    const DWORD error = CheckHiveCall("RegLoadKeyW", root, name);
    return static_cast<LSTATUS>(error == ERROR_SUCCESS ? LoadHive(name, file) : error);
  });
}

SIM(LSTATUS, RegUnLoadKeyW, HKEY root, LPCWSTR name) {
  return Change<LSTATUS>(__func__ + 4, name, [&] {
    const DWORD error = CheckHiveCall("RegUnLoadKeyW", root, name);
    return static_cast<LSTATUS>(error == ERROR_SUCCESS ? UnloadHive(name) : error);
  });
}
