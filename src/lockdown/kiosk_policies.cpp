#include "lockdown/kiosk_policies.h"

#include "lockdown/policy_tables.h"
#include "log/log.h"
#include "state/registry.h"
#include "win32/handle.h"
#include "win32/privilege.h"
#include "win32/wide_text.h"

#include <cstring>

namespace kiosk::lockdown {
namespace {

constexpr wchar_t kProfileList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";
constexpr wchar_t kLoadedHive[] = L"NorvaneKioskProvision";

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
  const std::wstring shell = L"\"" + clientInstallDir + L"\\NorvaneTessalyClient.exe\" --kiosk-shell";
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

bool IsSignedIn(const std::wstring& sid) {
  win32::RegistryKey key;
  return RegOpenKeyExW(HKEY_USERS, sid.c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

bool LoadHive(const std::wstring& file) {
  UnloadLeftOverHive();
  const LSTATUS status = RegLoadKeyW(HKEY_USERS, kLoadedHive, file.c_str());
  if (status != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "cannot load the kiosk hive (%ld)", status);
  }
  return status == ERROR_SUCCESS;
}

void UnloadHive() {
  const LSTATUS status = RegUnLoadKeyW(HKEY_USERS, kLoadedHive);
  if (status != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "cannot unload the kiosk hive (%ld)", status);
  }
}

}  // namespace

bool WriteKioskUserPolicies(const std::wstring& sid, const std::wstring& clientInstallDir, bool loadHive) {
  const std::wstring profile = state::ReadString((kProfileList + sid).c_str(), L"ProfileImagePath").value_or(L"");
  if (profile.empty()) {
    log::Log(log::kError, log::kKiosk, "no profile path for %s", win32::ToNarrow(sid).c_str());
    return false;
  }
  bool written = false;
  if (IsSignedIn(sid)) {
    written = WriteAll(sid, clientInstallDir);
  } else if (!loadHive) {
    return true;
  } else if (!LoadHive(profile + L"\\NTUSER.DAT")) {
    return false;
  } else {
    written = WriteAll(kLoadedHive, clientInstallDir);
    UnloadHive();
  }
  if (!written) {
    log::Log(log::kError, log::kKiosk, "cannot write the kiosk user's settings");
  }
  return written;
}

void UnloadLeftOverHive() {
  win32::EnablePrivilege(L"SeBackupPrivilege");
  win32::EnablePrivilege(L"SeRestorePrivilege");
  RegUnLoadKeyW(HKEY_USERS, kLoadedHive);
}

}  // namespace kiosk::lockdown
