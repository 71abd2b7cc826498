#include "tools/proof/undo.h"

#include "service/install.h"
#include "state/kiosk_state.h"
#include "tests/contract/hand.h"
#include "tools/proof/files.h"
#include "tools/proof/secrets.h"
#include "tools/proof/services.h"
#include "win32/folder_entries.h"
#include "win32/owners.h"
#include "win32/privilege.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <userenv.h>

#include <vector>

namespace proof {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;

constexpr DWORD kUninstallTime = 180'000;  // ms: a kiosk that is signed in, a profile in use

// From the path up to `made`, as far as nothing is in them.
void RemoveEmptyKeys(std::wstring path, const std::wstring& made) {
  for (; path.size() >= made.size() && !made.empty(); path.resize(path.find_last_of(L'\\'))) {
    kiosk::win32::RegistryKey key;
    DWORD keys = 0;
    DWORD values = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS &&
        RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr,
                         nullptr, nullptr) == ERROR_SUCCESS &&
        keys == 0 && values == 0) {
      key.Reset();
      RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, 0);
    }
  }
}

bool UndoValue(const Value& entry, const std::wstring& name) {
  const std::wstring key = kiosk::win32::ToWide(Member(entry, "key").text());
  if (Member(entry, "type").IsNull()) {
    const LSTATUS error = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str());
    RemoveEmptyKeys(key, kiosk::win32::ToWide(Member(entry, "made").text()));
    return error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND;
  }
  return kiosk::state::WriteValue(
      key.c_str(), name.c_str(),
      {static_cast<DWORD>(Member(entry, "type").number()), Bytes(Member(entry, "bytes").text())});
}

bool UndoUser(const std::wstring& name) {
  const std::wstring sid = contract::SidOfUser(name.c_str());
  if (sid.empty()) {
    return true;
  }
  DeleteProfileW(sid.c_str(), nullptr, nullptr);
  return NetUserDel(nullptr, name.c_str()) == NERR_Success;
}

bool UndoHive(const std::wstring& name) {
  kiosk::win32::EnablePrivilege(L"SeBackupPrivilege");
  kiosk::win32::EnablePrivilege(L"SeRestorePrivilege");
  kiosk::win32::RegistryKey loaded;
  return RegOpenKeyExW(HKEY_USERS, name.c_str(), 0, KEY_READ, loaded.Put()) != ERROR_SUCCESS ||
         (loaded.Reset(), RegUnLoadKeyW(HKEY_USERS, name.c_str()) == ERROR_SUCCESS);
}

// It takes kiosk mode down with it. The account that was in use is left for another time, with the state key.
bool UndoProduct(const std::wstring& program) {
  const Ran ran = RunProgram(L"\"" + program + L"\" --uninstall", kUninstallTime);
  return ran.error == ERROR_SUCCESS && !OpenExisting(kiosk::service::kServiceName, SERVICE_QUERY_STATUS) &&
         kiosk::state::ReadStateString(kiosk::state::kAccountSid).empty();
}

// By the key that Windows keeps it in ("System Store Locations"): it goes whoever has the store open.
bool UndoTrust(const std::wstring& thumbprint) {
  const LSTATUS error = RegDeleteTreeW(
      HKEY_LOCAL_MACHINE, (L"SOFTWARE\\Microsoft\\SystemCertificates\\Root\\Certificates\\" + thumbprint).c_str());
  return error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND;
}

// What a contract case was about when its process ended.
bool UndoCases(const std::wstring& name) {
  bool undone = UndoHive(name) && EndService(name.c_str());
  undone = UndoUser(name + L"User") && undone;
  undone = StoreSecret(name, "") && undone;
  undone = contract::RemoveSpareAdapters() && undone;
  // Where the administrator's cases have theirs, and the agent's.
  wchar_t own[MAX_PATH];
  wchar_t windows[MAX_PATH];
  GetTempPathW(MAX_PATH, own);
  GetWindowsDirectoryW(windows, MAX_PATH);
  for (const std::wstring& folder :
       {std::wstring(own, std::wstring_view(own).find_last_of(L'\\')), std::wstring(windows) + L"\\Temp"}) {
    for (const kiosk::win32::FolderEntry& each : kiosk::win32::EntriesOf(folder, (name + L"-*").c_str())) {
      undone = kiosk::win32::RemoveTree(each.path) && undone;
    }
  }
  return undone;
}

}  // namespace

Undo FindUndo(std::string_view kind) noexcept {
  struct Kind {
    std::string_view name;
    Undo undo;
  };
  using Name = std::wstring;
  constexpr Kind kKinds[] = {
      {"value", UndoValue},
      {"secret",
       [](const Value& entry, const Name& name) { return StoreSecret(name, Member(entry, "sealed").text()); }},
      {"folder", [](const Value&, const Name& path) { return !IsThere(path) || kiosk::win32::RemoveTree(path); }},
      {"service", [](const Value&, const Name& name) { return EndService(name.c_str()); }},
      {"user", [](const Value&, const Name& name) { return UndoUser(name); }},
      {"hive", [](const Value&, const Name& name) { return UndoHive(name); }},
      {"product", [](const Value&, const Name& program) { return UndoProduct(program); }},
      {"trust", [](const Value&, const Name& thumbprint) { return UndoTrust(thumbprint); }},
      {"cases", [](const Value&, const Name& name) { return UndoCases(name); }},
  };
  for (const Kind& each : kKinds) {
    if (each.name == kind) {
      return each.undo;
    }
  }
  return nullptr;
}

}  // namespace proof
