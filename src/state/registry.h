// Small helpers over the registry. They work on HKLM unless they are given a key, hold no lock, never log and never
// throw for a registry failure: expected absence is an empty optional, everything else is the result.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::state {

// A value as the registry holds it.
struct RawValue {
  DWORD type = REG_NONE;
  std::vector<std::uint8_t> bytes;

  [[nodiscard]] DWORD Size() const noexcept { return static_cast<DWORD>(bytes.size()); }

  // What the value means as one type; empty when it is of another type (or size, for numbers). A text of type REG_SZ or
  // REG_EXPAND_SZ ends at its first NUL; the latter is expanded, and is empty when that fails.
  [[nodiscard]] std::optional<std::wstring> Text() const;
  [[nodiscard]] std::optional<DWORD> Dword() const;
  [[nodiscard]] std::optional<std::uint64_t> Qword() const;
};

// Reads a value of an open key. ERROR_FILE_NOT_FOUND when it is missing.
LSTATUS ReadRaw(HKEY key, const wchar_t* name, RawValue& value);

// Reads a value below HKLM. ERROR_FILE_NOT_FOUND when the key or the value is missing; anything else but success means
// that nobody knows what stands there.
LSTATUS ReadValue(const wchar_t* subkey, const wchar_t* name, RawValue& value);

// The text of a REG_SZ or REG_EXPAND_SZ value (environment variables expanded), cut at the first NUL. Empty optional
// for a missing key or value, another type, or a failed expansion.
std::optional<std::wstring> ReadString(const wchar_t* subkey, const wchar_t* name);

// A REG_DWORD value; any other type counts as absent.
std::optional<DWORD> ReadDword(const wchar_t* subkey, const wchar_t* name);

// These create or open the key (default security) and set the value. True when both succeed.
bool WriteValue(const wchar_t* subkey, const wchar_t* name, const RawValue& value);
bool WriteString(const wchar_t* subkey, const wchar_t* name, std::wstring_view text, DWORD type = REG_SZ);
bool WriteDword(const wchar_t* subkey, const wchar_t* name, DWORD number);

// Bytes of a text as REG_SZ wants them counted: with the terminating NUL.
constexpr DWORD StringBytes(std::wstring_view text) noexcept {
  return static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
}

}  // namespace kiosk::state
