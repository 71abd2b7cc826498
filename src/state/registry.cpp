#include "state/registry.h"

#include "win32/grow.h"
#include "win32/handle.h"

#include <algorithm>

namespace kiosk::state {
namespace {

using win32::RegistryKey;

struct RawValue {
  DWORD type = REG_NONE;
  std::vector<std::uint8_t> bytes;
};

std::optional<RawValue> ReadRaw(const wchar_t* subkey, const wchar_t* name) {
  RegistryKey key;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, KEY_QUERY_VALUE, key.Put()) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  RawValue value;
  const DWORD error = win32::CallGrowing(
      value.bytes,
      [&](std::uint8_t* buffer, DWORD* size) {
        return static_cast<DWORD>(RegQueryValueExW(key.Get(), name, nullptr, &value.type, buffer, size));
      },
      256);
  if (error != ERROR_SUCCESS) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::wstring> Expand(const std::wstring& text) {
  std::vector<wchar_t> buffer;
  const DWORD error = win32::CallGrowing(
      buffer,
      [&](wchar_t* out, DWORD* size) -> DWORD {
        const DWORD needed = ExpandEnvironmentStringsW(text.c_str(), out, *size);
        if (needed == 0) {
          return GetLastError() == ERROR_SUCCESS ? ERROR_INVALID_DATA : GetLastError();
        }
        *size = needed;
        return ERROR_SUCCESS;
      },
      MAX_PATH);
  if (error != ERROR_SUCCESS || buffer.empty()) {
    return std::nullopt;
  }
  return std::wstring(buffer.data());
}

// Numbers have a fixed size, so one call tells type and size at once.
template <typename Number>
std::optional<Number> ReadNumber(const wchar_t* subkey, const wchar_t* name, DWORD flags) {
  Number number = 0;
  DWORD size = sizeof(number);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, subkey, name, flags, nullptr, &number, &size) != ERROR_SUCCESS ||
      size != sizeof(number)) {
    return std::nullopt;
  }
  return number;
}

}  // namespace

std::optional<std::wstring> ReadString(const wchar_t* subkey, const wchar_t* name) {
  const std::optional<RawValue> value = ReadRaw(subkey, name);
  if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ)) {
    return std::nullopt;
  }
  // Not every writer stores a terminator, and some store text behind it.
  const auto* text = reinterpret_cast<const wchar_t*>(value->bytes.data());
  const std::wstring raw(text, std::find(text, text + value->bytes.size() / sizeof(wchar_t), L'\0'));
  return value->type == REG_EXPAND_SZ ? Expand(raw) : raw;
}

std::optional<DWORD> ReadDword(const wchar_t* subkey, const wchar_t* name) {
  return ReadNumber<DWORD>(subkey, name, RRF_RT_REG_DWORD);
}

std::optional<std::uint64_t> ReadQword(const wchar_t* subkey, const wchar_t* name) {
  return ReadNumber<std::uint64_t>(subkey, name, RRF_RT_REG_QWORD);
}

std::optional<std::vector<std::uint8_t>> ReadBinary(const wchar_t* subkey, const wchar_t* name) {
  std::optional<RawValue> value = ReadRaw(subkey, name);
  if (!value || value->type != REG_BINARY) {
    return std::nullopt;
  }
  return std::move(value->bytes);
}

bool WriteValue(HKEY root, const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  RegistryKey key;
  return RegCreateKeyExW(root, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr, key.Put(),
                         nullptr) == ERROR_SUCCESS &&
         RegSetValueExW(key.Get(), name, 0, type, static_cast<const BYTE*>(data), size) == ERROR_SUCCESS;
}

LSTATUS WriteExisting(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  RegistryKey key;
  const LSTATUS opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, KEY_SET_VALUE, key.Put());
  return opened != ERROR_SUCCESS ? opened
                                 : RegSetValueExW(key.Get(), name, 0, type, static_cast<const BYTE*>(data), size);
}

bool CopyValue(const wchar_t* fromSubkey, const wchar_t* fromName, const wchar_t* toSubkey, const wchar_t* toName) {
  const std::optional<RawValue> value = ReadRaw(fromSubkey, fromName);
  return value && WriteValue(HKEY_LOCAL_MACHINE, toSubkey, toName, value->type, value->bytes.data(),
                             static_cast<DWORD>(value->bytes.size()));
}

}  // namespace kiosk::state
