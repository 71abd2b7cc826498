#include "state/kiosk_state.h"

#include "win32/handle.h"
#include "win32/lock.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <utility>

namespace kiosk::state {
namespace {

// Protected; full control for SYSTEM and for Administrators, inherited by subkeys; nobody else may even read.
constexpr wchar_t kStateKeySddl[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)";
constexpr wchar_t kParentKey[] = L"SOFTWARE\\Norvane\\Tessaly";
constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";

// The key, opened once for all reads: a status alone makes eight of them. Values are never kept. Without a destructor,
// since any thread may still read while the process ends.
win32::Lock keyLock{win32::LockRank::kStateKey};
HKEY openKey GUARDED_BY(keyLock) = nullptr;

// ERROR_KEY_DELETED also stands for a key that was not opened yet.
LSTATUS ReadFromOpenKey(const wchar_t* name, RawValue& raw) {
  const win32::SharedLockGuard guard(keyLock);
  return openKey != nullptr ? ReadRaw(openKey, name, raw) : ERROR_KEY_DELETED;
}

// An uninstall deletes the key and a later start makes it anew: a handle of the old one has to go.
void Reopen() {
  const win32::LockGuard guard(keyLock);
  win32::RegistryKey key(openKey);
  openKey = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, KEY_QUERY_VALUE, key.Put()) == ERROR_SUCCESS ? key.Release()
                                                                                                         : nullptr;
}

}  // namespace

std::optional<RawValue> ReadState(const StateValue& value) {
  RawValue raw;
  LSTATUS status = ReadFromOpenKey(value.name, raw);
  if (status == ERROR_KEY_DELETED) {
    Reopen();
    status = ReadFromOpenKey(value.name, raw);
  }
  return status == ERROR_SUCCESS ? std::optional(std::move(raw)) : std::nullopt;
}

ProtectResult ProtectStateKey() {
  const win32::SecurityDescriptor descriptor(kStateKeySddl);
  if (!descriptor) {
    return {"state key security descriptor failed", GetLastError()};
  }
  // The parents first and with default security: keys that are missing on the way would get the descriptor as well, and
  // other programs keep their settings below them.
  win32::RegistryKey parent;
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kParentKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_QUERY_VALUE,
                                   nullptr, parent.Put(), nullptr);
  if (status != ERROR_SUCCESS) {
    return {"cannot create the state key", static_cast<DWORD>(status)};
  }
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  win32::RegistryKey key;
  status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                           &attributes, key.Put(), nullptr);
  if (status != ERROR_SUCCESS) {
    return {"cannot create the state key", static_cast<DWORD>(status)};
  }
  status =
      RegSetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, descriptor.Get());
  if (status != ERROR_SUCCESS) {
    return {"cannot protect the state key", static_cast<DWORD>(status)};
  }
  return {};
}

std::wstring ReadStateString(const StateValue& value) {
  const std::optional<RawValue> raw = ReadState(value);
  return raw ? raw->Text().value_or(L"") : std::wstring();
}

bool FlagIsOn(const StateValue& value) {
  const std::optional<RawValue> raw = ReadState(value);
  return raw && raw->Dword() == DWORD{1};
}

bool TokenIsStored() {
  const std::optional<RawValue> raw = ReadState(kDeviceToken);
  return raw && raw->type == REG_BINARY && !raw->bytes.empty();
}

bool WriteStateString(const StateValue& value, std::wstring_view text) {
  const std::wstring terminated(text);
  return WriteExisting(kStateKey, value.name, value.type, terminated.c_str(), StringBytes(text)) == ERROR_SUCCESS;
}

bool WriteStateDword(const StateValue& value, DWORD number) {
  return WriteExisting(kStateKey, value.name, REG_DWORD, &number, sizeof(number)) == ERROR_SUCCESS;
}

bool WriteStateQword(const StateValue& value, std::uint64_t number) {
  return WriteExisting(kStateKey, value.name, REG_QWORD, &number, sizeof(number)) == ERROR_SUCCESS;
}

bool SetStateStringIfChanged(const StateValue& value, std::wstring_view text) {
  const std::optional<RawValue> stored = ReadState(value);
  if (!stored ? text.empty() : stored->type == REG_SZ && stored->Text() == text) {
    return false;
  }
  if (text.empty()) {
    DeleteStateValue(value);
  } else {
    WriteStateString(value, text);
  }
  return true;
}

bool DeleteStateValue(const StateValue& value) {
  const LSTATUS status = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kStateKey, value.name);
  return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND;
}

bool FlushStateKey() {
  win32::RegistryKey key;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, KEY_QUERY_VALUE, key.Put()) == ERROR_SUCCESS &&
         RegFlushKey(key.Get()) == ERROR_SUCCESS;
}

void RecordLastError(std::string_view text) {
  if (text.empty()) {
    DeleteStateValue(kLastError);
  } else {
    WriteStateString(kLastError, win32::ToWide(text));
  }
}

std::wstring ClientInstallFolder() {
  std::wstring folder = ReadString(kUpdateKey, L"ClientInstallDir").value_or(L"");
  while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) {
    folder.pop_back();
  }
  return folder;
}

}  // namespace kiosk::state
