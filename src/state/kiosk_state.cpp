#include "state/kiosk_state.h"

#include "win32/handle.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <atomic>
#include <utility>

namespace kiosk::state {
namespace {

// Protected; full control for SYSTEM and for Administrators, inherited by subkeys; nobody else may even read.
constexpr wchar_t kStateKeySddl[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)";
constexpr wchar_t kParentKey[] = L"SOFTWARE\\Norvane\\Tessaly";

// One handle of the key serves all reads, of which a single status makes eight; no value is kept. It is never closed,
// since any thread may be reading through it.
std::atomic<HKEY> openKey{nullptr};

// How many reads did not tell what stands there.
std::atomic<unsigned> unknownReads{0};

// Puts a new handle in the place of `old`, unless another thread was first. The old one stays open: an uninstall
// deletes the key at the end of a service's life, so that no process collects them.
LSTATUS Reopen(HKEY old) {
  win32::RegistryKey key;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, KEY_QUERY_VALUE, key.Put());
  if (status == ERROR_SUCCESS && openKey.compare_exchange_strong(old, key.Get())) {
    static_cast<void>(key.Release());
  }
  return status;
}

bool IsKnown(LSTATUS status) noexcept { return status == ERROR_SUCCESS || status == ERROR_FILE_NOT_FOUND; }

}  // namespace

LSTATUS ReadState(const StateValue& value, RawValue& raw) {
  const HKEY key = openKey;
  LSTATUS status = key != nullptr ? ReadRaw(key, value.name, raw) : ERROR_KEY_DELETED;
  if (status == ERROR_KEY_DELETED) {
    status = Reopen(key);
    status = status == ERROR_SUCCESS ? ReadRaw(openKey, value.name, raw) : status;
  }
  status = status == ERROR_KEY_DELETED ? ERROR_FILE_NOT_FOUND : status;  // deleted once more in between
  if (!IsKnown(status)) {
    ++unknownReads;
  }
  return status;
}

bool ReadKnownState(const StateValue& value, RawValue& raw) { return IsKnown(ReadState(value, raw)); }

ReadWatch::ReadWatch() noexcept : before_(unknownReads) {}

bool ReadWatch::AllKnown() const noexcept { return unknownReads == before_; }

std::optional<RawValue> ReadState(const StateValue& value) {
  RawValue raw;
  return ReadState(value, raw) == ERROR_SUCCESS ? std::optional(std::move(raw)) : std::nullopt;
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

DWORD ReadStateDword(const StateValue& value) {
  const std::optional<RawValue> raw = ReadState(value);
  return raw ? raw->Dword().value_or(0) : 0;
}

std::uint64_t ReadStateQword(const StateValue& value) {
  const std::optional<RawValue> raw = ReadState(value);
  return raw ? raw->Qword().value_or(0) : 0;
}

bool FlagIsOn(const StateValue& value) { return ReadStateDword(value) == 1; }

bool TokenIsStored() {
  const std::optional<RawValue> raw = ReadState(kDeviceToken);
  return raw && raw->type == REG_BINARY && !raw->bytes.empty();
}

bool WriteStateString(const StateValue& value, std::wstring_view text) {
  const std::wstring terminated(text);
  return WriteState(value, value.type, terminated.c_str(), StringBytes(text)) == ERROR_SUCCESS;
}

bool WriteStateDword(const StateValue& value, DWORD number) {
  return WriteState(value, REG_DWORD, &number, sizeof(number)) == ERROR_SUCCESS;
}

bool WriteStateQword(const StateValue& value, std::uint64_t number) {
  return WriteState(value, REG_QWORD, &number, sizeof(number)) == ERROR_SUCCESS;
}

LSTATUS WriteState(const StateValue& value, const RawValue& content) {
  return WriteState(value, content.type, content.bytes.data(), content.Size());
}

LSTATUS WriteState(const StateValue& value, DWORD type, const void* data, DWORD size) {
  win32::RegistryKey key;
  const LSTATUS opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, KEY_SET_VALUE, key.Put());
  return opened != ERROR_SUCCESS ? opened
                                 : RegSetValueExW(key.Get(), value.name, 0, type, static_cast<const BYTE*>(data), size);
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

void DeleteStateValues(std::initializer_list<StateValue> values) {
  for (const StateValue& value : values) {
    DeleteStateValue(value);
  }
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

}  // namespace kiosk::state
