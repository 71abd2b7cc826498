#include "lockdown/kiosk_policies.h"

#include "lockdown/policy_tables.h"
#include "log/log.h"
#include "state/folders.h"
#include "state/registry.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/privilege.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <cstring>

namespace kiosk::lockdown {
namespace {

constexpr wchar_t kLoadedHive[] = L"NorvaneKioskProvision";
// Whoever watches the registry (a virus scanner, say) may hold a key of the hive for a moment.
constexpr DWORD kUnloadWait = 5'000;
constexpr DWORD kUnloadPoll = 250;

bool IsAlreadyThere(const std::wstring& key, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  win32::RegistryKey opened;
  state::RawValue value;
  return RegOpenKeyExW(HKEY_USERS, key.c_str(), 0, KEY_QUERY_VALUE, opened.Put()) == ERROR_SUCCESS &&
         state::ReadRaw(opened.Get(), name, value) == ERROR_SUCCESS && value.type == type &&
         value.bytes.size() == size && std::memcmp(value.bytes.data(), data, size) == 0;
}

// Compared first: this runs after every check-in, and a steady terminal writes nothing.
bool Put(const std::wstring& hive, const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  const std::wstring path = hive + L"\\" + key;
  return IsAlreadyThere(path, name, type, data, size) ||
         RegSetKeyValueW(HKEY_USERS, path.c_str(), name, type, data, size) == ERROR_SUCCESS;
}

bool Put(const std::wstring& hive, const PolicyValue& policy) {
  return policy.text != nullptr
             ? Put(hive, policy.key, policy.name, REG_SZ, policy.text, state::StringBytes(policy.text))
             : Put(hive, policy.key, policy.name, REG_DWORD, &policy.number, sizeof(policy.number));
}

// `hive` is the name below HKEY_USERS.
bool WriteAll(const std::wstring& hive, const std::wstring& clientInstallDir) {
  const std::wstring shell = L"\"" + clientInstallDir + kShellProgram + L"\"" + kShellSwitch;
  if (!Put(hive, kShellKey, L"Shell", REG_SZ, shell.c_str(), state::StringBytes(shell))) {
    return false;
  }
  for (const PolicyValue& policy : kDesktopValues) {
    if (!Put(hive, policy)) {
      return false;
    }
  }
  bool all = true;
  for (const PolicyValue& policy : kPolicyValues) {
    all = Put(hive, policy) && all;
  }
  return all;
}

// Below HKEY_USERS. The user's own hive stands there under the SID while they are signed in.
bool IsLoaded(const wchar_t* hive) {
  win32::RegistryKey key;
  return RegOpenKeyExW(HKEY_USERS, hive, 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

void EnableHivePrivileges() {
  win32::EnablePrivilege(L"SeBackupPrivilege");
  win32::EnablePrivilege(L"SeRestorePrivilege");
}

LSTATUS UnloadHive(DWORD patience) {
  const win32::Deadline deadline(patience);
  LSTATUS status = ERROR_SUCCESS;
  while ((status = RegUnLoadKeyW(HKEY_USERS, kLoadedHive)) != ERROR_SUCCESS && !deadline.Passed() &&
         win32::WaitOrStop(nullptr, kUnloadPoll) != win32::WaitResult::kStop) {
  }
  return status;
}

void UnloadLeftOver(DWORD patience) {
  if (IsLoaded(kLoadedHive)) {
    EnableHivePrivileges();
    UnloadHive(patience);
  }
}

// Looked for first: RegLoadKeyW makes a file that is missing, and the user would get settings without what Windows
// gives everybody.
LSTATUS LoadHive(const std::wstring& file) {
  EnableHivePrivileges();
  return GetFileAttributesW(file.c_str()) == INVALID_FILE_ATTRIBUTES
             ? static_cast<LSTATUS>(GetLastError())
             : RegLoadKeyW(HKEY_USERS, kLoadedHive, file.c_str());
}

bool IsMissingOrDamaged(LSTATUS status) {
  return status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND || status == ERROR_BADDB ||
         status == ERROR_REGISTRY_CORRUPT || status == ERROR_NOT_REGISTRY_FILE;
}

bool WriteIntoFile(const std::wstring& clientInstallDir) {
  const bool written = WriteAll(kLoadedHive, clientInstallDir);
  if (const LSTATUS status = UnloadHive(kUnloadWait); status != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "cannot unload the kiosk hive (%ld)", status);
  }
  return written;
}

}  // namespace

PolicyResult WriteKioskUserPolicies(const std::wstring& sid, const std::wstring& clientInstallDir, bool loadHive) {
  const std::wstring profile = state::ProfileFolder(sid).value_or(L"");
  if (profile.empty()) {
    log::Log(log::kError, log::kKiosk, "no profile path for %s", win32::ToNarrow(sid).c_str());
    return PolicyResult::kFailed;
  }
  // Each check-in comes by here, and is not held up by what cannot be unloaded now.
  UnloadLeftOver(loadHive ? kUnloadWait : 0);
  const bool signedIn = IsLoaded(sid.c_str());
  if (!signedIn && !loadHive) {
    return PolicyResult::kDone;
  }
  if (!signedIn) {
    if (const LSTATUS status = LoadHive(profile + L"\\NTUSER.DAT"); status != ERROR_SUCCESS) {
      log::Log(log::kError, log::kKiosk, "cannot load the kiosk hive (%ld)", status);
      return IsMissingOrDamaged(status) ? PolicyResult::kNoHive : PolicyResult::kFailed;
    }
  }
  const bool written = signedIn ? WriteAll(sid, clientInstallDir) : WriteIntoFile(clientInstallDir);
  if (!written) {
    log::Log(log::kError, log::kKiosk, "cannot write the kiosk user's settings");
  }
  return written ? PolicyResult::kDone : PolicyResult::kFailed;
}

void UnloadLeftOverHive() { UnloadLeftOver(kUnloadWait); }

}  // namespace kiosk::lockdown
