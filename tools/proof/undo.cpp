#include "tools/proof/undo.h"

#include "service/install.h"
#include "state/kiosk_state.h"
#include "text/text.h"
#include "tools/proof/files.h"
#include "win32/clock.h"
#include "win32/folder_entries.h"
#include "win32/owners.h"
#include "win32/privilege.h"
#include "win32/secure_folder.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <userenv.h>

#include <vector>

namespace proof {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

constexpr DWORD kStopTime = 60'000;        // ms
constexpr DWORD kUninstallTime = 180'000;  // a kiosk that is signed in, a profile in use

ServiceHandle Open(const wchar_t* name, DWORD access) {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  return ServiceHandle(manager ? OpenServiceW(manager.Get(), name, access) : nullptr);
}

std::vector<BYTE> Bytes(const std::string& hex) {
  std::vector<BYTE> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<BYTE>(16 * kiosk::text::HexDigit(hex[i]) + kiosk::text::HexDigit(hex[i + 1])));
  }
  return bytes;
}

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
  const std::vector<BYTE> bytes = Bytes(Member(entry, "bytes").text());
  return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(),
                         static_cast<DWORD>(Member(entry, "type").number()), bytes.data(),
                         static_cast<DWORD>(bytes.size())) == ERROR_SUCCESS;
}

bool UndoFolder(const Value& /*entry*/, const std::wstring& name) {
  return !IsThere(name) || kiosk::win32::RemoveTree(name);
}

bool UndoService(const Value& /*entry*/, const std::wstring& name) { return EndService(name.c_str()); }

bool UndoUser(const Value& /*entry*/, const std::wstring& name) {
  BYTE* raw = nullptr;
  if (NetUserGetInfo(nullptr, name.c_str(), 23, &raw) != NERR_Success) {
    return true;
  }
  const kiosk::win32::NetBuffer record(raw);
  const std::wstring sid = kiosk::win32::SidText(reinterpret_cast<const USER_INFO_23*>(record.Get())->usri23_user_sid);
  DeleteProfileW(sid.c_str(), nullptr, nullptr);
  return NetUserDel(nullptr, name.c_str()) == NERR_Success;
}

bool UndoHive(const Value& /*entry*/, const std::wstring& name) {
  kiosk::win32::EnablePrivilege(L"SeBackupPrivilege");
  kiosk::win32::EnablePrivilege(L"SeRestorePrivilege");
  kiosk::win32::RegistryKey loaded;
  return RegOpenKeyExW(HKEY_USERS, name.c_str(), 0, KEY_READ, loaded.Put()) != ERROR_SUCCESS ||
         (loaded.Reset(), RegUnLoadKeyW(HKEY_USERS, name.c_str()) == ERROR_SUCCESS);
}

// It takes kiosk mode down with it. The account that was in use is left for another time, with the state key.
bool UndoProduct(const Value& /*entry*/, const std::wstring& program) {
  const Ran ran = RunProgram(L"\"" + program + L"\" --uninstall", kUninstallTime);
  return ran.error == ERROR_SUCCESS && !Open(kiosk::service::kServiceName, SERVICE_QUERY_STATUS) &&
         kiosk::state::ReadStateString(kiosk::state::kAccountSid).empty();
}

bool ForgetSecret(const std::wstring& name) {
  LSA_OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof(attributes);
  kiosk::win32::LsaHandle policy;
  if (LsaOpenPolicy(nullptr, &attributes, POLICY_CREATE_SECRET, policy.Put()) < 0) {
    return false;
  }
  const auto bytes = static_cast<USHORT>(name.size() * sizeof(wchar_t));
  LSA_UNICODE_STRING key{bytes, bytes, const_cast<wchar_t*>(name.c_str())};
  LsaStorePrivateData(policy.Get(), &key, nullptr);
  return true;
}

// What a contract case was about when its process ended.
bool UndoCases(const Value& entry, const std::wstring& name) {
  bool undone = UndoHive(entry, name) && EndService(name.c_str());
  undone = UndoUser(entry, name + L"User") && undone;
  undone = ForgetSecret(name) && undone;
  wchar_t folder[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  const std::wstring temporary(folder, std::wstring_view(folder).find_last_of(L'\\'));
  for (const kiosk::win32::FolderEntry& each : kiosk::win32::EntriesOf(temporary, (name + L"-*").c_str())) {
    undone = kiosk::win32::RemoveTree(each.path) && undone;
  }
  return undone;
}

}  // namespace

Undo FindUndo(std::string_view kind) noexcept {
  struct Kind {
    std::string_view name;
    Undo undo;
  };
  constexpr Kind kKinds[] = {{"value", UndoValue}, {"folder", UndoFolder}, {"service", UndoService},
                             {"user", UndoUser},   {"hive", UndoHive},     {"product", UndoProduct},
                             {"cases", UndoCases}};
  for (const Kind& each : kKinds) {
    if (each.name == kind) {
      return each.undo;
    }
  }
  return nullptr;
}

bool EndService(const wchar_t* name) {
  const ServiceHandle service = Open(name, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS);
  if (!service) {
    return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
  }
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                       &needed);
  const KernelHandle process(
      status.dwProcessId != 0 ? OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, status.dwProcessId) : nullptr);
  SERVICE_STATUS stopped{};
  ControlService(service.Get(), SERVICE_CONTROL_STOP, &stopped);
  if (process && WaitForSingleObject(process.Get(), kStopTime) != WAIT_OBJECT_0) {
    TerminateProcess(process.Get(), 1);
    WaitForSingleObject(process.Get(), kStopTime);
  }
  return DeleteService(service.Get()) != 0 || GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
}

void MarkServiceToGo(const wchar_t* name) {
  if (const ServiceHandle service = Open(name, DELETE); service) {
    DeleteService(service.Get());
  }
}

}  // namespace proof
