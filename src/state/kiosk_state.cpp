#include "state/kiosk_state.h"

#include "state/registry.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/wide_text.h"

namespace kiosk::state {
namespace {

// Protected; full control for SYSTEM and for Administrators, inherited by subkeys; nobody else may even read.
constexpr wchar_t kStateKeySddl[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)";
constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";

}  // namespace

ProtectResult ProtectStateKey() {
  const win32::SecurityDescriptor descriptor(kStateKeySddl);
  if (!descriptor) {
    return {"state key security descriptor failed", GetLastError()};
  }
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  win32::RegistryKey key;
  LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                   &attributes, key.Put(), nullptr);
  if (status != ERROR_SUCCESS) {
    return {"cannot create the state key", static_cast<DWORD>(status)};
  }
  status = RegSetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                             descriptor.Get());
  if (status != ERROR_SUCCESS) {
    return {"cannot protect the state key", static_cast<DWORD>(status)};
  }
  return {};
}

std::wstring ReadStateString(const StateValue& value) { return ReadString(kStateKey, value.name).value_or(L""); }

bool FlagIsOn(const StateValue& value) { return ReadDword(kStateKey, value.name) == DWORD{1}; }

bool TokenIsStored() {
  DWORD size = 0;
  return RegGetValueW(HKEY_LOCAL_MACHINE, kStateKey, kDeviceToken.name, RRF_RT_REG_BINARY, nullptr, nullptr, &size) ==
             ERROR_SUCCESS &&
         size > 0;
}

bool WriteStateString(const StateValue& value, std::wstring_view text) {
  const std::wstring terminated(text);
  return WriteExisting(kStateKey, value.name, value.type, terminated.c_str(), StringBytes(text)) == ERROR_SUCCESS;
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
