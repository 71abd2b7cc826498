#include "state/registry.h"

#include "win32/grow.h"
#include "win32/handle.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kiosk::state {
namespace {

using win32::RegistryKey;

// Holds every value of this product at the first try, the protected token included.
constexpr DWORD kFirstSize = 1024;

std::optional<RawValue> ReadBelow(const wchar_t* subkey, const wchar_t* name) {
  RawValue value;
  return ReadValue(subkey, name, value) == ERROR_SUCCESS ? std::optional(std::move(value)) : std::nullopt;
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

template <typename Number>
std::optional<Number> NumberOf(const RawValue& value, DWORD type) {
  Number number = 0;
  if (value.type != type || value.bytes.size() != sizeof(number)) {
    return std::nullopt;
  }
  std::memcpy(&number, value.bytes.data(), sizeof(number));
  return number;
}

bool Write(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD size) {
  RegistryKey key;
  return RegCreateKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr,
                         key.Put(), nullptr) == ERROR_SUCCESS &&
         RegSetValueExW(key.Get(), name, 0, type, static_cast<const BYTE*>(data), size) == ERROR_SUCCESS;
}

}  // namespace

std::optional<std::wstring> RawValue::Text() const {
  if (type != REG_SZ && type != REG_EXPAND_SZ) {
    return std::nullopt;
  }
  // Not every writer stores a terminator, and some store text behind it.
  const auto* text = reinterpret_cast<const wchar_t*>(bytes.data());
  std::wstring raw(text, std::find(text, text + bytes.size() / sizeof(wchar_t), L'\0'));
  return type == REG_EXPAND_SZ ? Expand(raw) : std::move(raw);
}

std::optional<DWORD> RawValue::Dword() const { return NumberOf<DWORD>(*this, REG_DWORD); }

std::optional<std::uint64_t> RawValue::Qword() const { return NumberOf<std::uint64_t>(*this, REG_QWORD); }

LSTATUS ReadRaw(HKEY key, const wchar_t* name, RawValue& value) {
  return static_cast<LSTATUS>(win32::CallGrowing(
      value.bytes,
      [&](std::uint8_t* buffer, DWORD* size) {
        return static_cast<DWORD>(RegQueryValueExW(key, name, nullptr, &value.type, buffer, size));
      },
      kFirstSize));
}

LSTATUS ReadValue(const wchar_t* subkey, const wchar_t* name, RawValue& value) {
  RegistryKey key;
  const LSTATUS opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, KEY_QUERY_VALUE, key.Put());
  return opened != ERROR_SUCCESS ? opened : ReadRaw(key.Get(), name, value);
}

std::optional<std::wstring> ReadString(const wchar_t* subkey, const wchar_t* name) {
  const std::optional<RawValue> value = ReadBelow(subkey, name);
  return value ? value->Text() : std::nullopt;
}

std::optional<DWORD> ReadDword(const wchar_t* subkey, const wchar_t* name) {
  const std::optional<RawValue> value = ReadBelow(subkey, name);
  return value ? value->Dword() : std::nullopt;
}

bool WriteValue(const wchar_t* subkey, const wchar_t* name, const RawValue& value) {
  return Write(subkey, name, value.type, value.bytes.data(), value.Size());
}

bool WriteString(const wchar_t* subkey, const wchar_t* name, std::wstring_view text, DWORD type) {
  const std::wstring terminated(text);
  return Write(subkey, name, type, terminated.c_str(), StringBytes(text));
}

bool WriteDword(const wchar_t* subkey, const wchar_t* name, DWORD number) {
  return Write(subkey, name, REG_DWORD, &number, sizeof(number));
}

}  // namespace kiosk::state
