// The state of the simulated machine: values in the registry, in one key per area below HKLM\SOFTWARE\SimulatedWindows.
// It outlives a killed process, and a test or a person can set it up and read it back with any registry tool.
#pragma once

#include "win32/winapi.h"

#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace sim {

inline constexpr wchar_t kMachineKey[] = L"SOFTWARE\\SimulatedWindows";

// `area` is a key below the machine's key ("Sessions\\2"), or "" for that key itself.
std::optional<std::wstring> ReadText(const std::wstring& area, const std::wstring& name);
std::optional<DWORD> ReadNumber(const std::wstring& area, const std::wstring& name);
void WriteText(const std::wstring& area, const std::wstring& name, const std::wstring& text);
void WriteNumber(const std::wstring& area, const std::wstring& name, DWORD number);
void ForgetValue(const std::wstring& area, const std::wstring& name);

// Values of other keys below HKLM.
std::optional<std::wstring> RegistryText(const std::wstring& key, const wchar_t* name);  // REG_SZ, or expanded
std::optional<DWORD> RegistryNumber(const std::wstring& key, const wchar_t* name);
void SetRegistryText(const std::wstring& key, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ);

bool AreaExists(const std::wstring& area);
// The names of the areas right below this one.
std::vector<std::wstring> AreaNames(const std::wstring& area);
// The names of an area's values.
std::vector<std::wstring> ValueNames(const std::wstring& area);
void ForgetArea(const std::wstring& area);

// A machine as it left the factory.
inline void ForgetMachine() { ForgetArea(L""); }

// What tests set and read back of one thing of the machine: a number (errors, milliseconds, 1 for yes) or a text. The
// groups of fields are `power`, `timeService`, `agent`, `Adapter` and those below.
template <typename T = DWORD>
class Field {
 public:
  Field(std::wstring area, std::wstring name, T missing = {})
      : area_(std::move(area)), name_(std::move(name)), missing_(std::move(missing)) {}

  [[nodiscard]] T Get() const { return Read().value_or(missing_); }
  [[nodiscard]] std::optional<T> Read() const {
    if constexpr (std::is_same_v<T, DWORD>) {
      return ReadNumber(area_, name_);
    } else {
      return ReadText(area_, name_);
    }
  }
  void Set(const T& value) const {
    if constexpr (std::is_same_v<T, DWORD>) {
      WriteNumber(area_, name_, value);
    } else {
      WriteText(area_, name_, value);
    }
  }
  void Forget() const { ForgetValue(area_, name_); }
  void Increment() const { Set(Get() + 1); }

 private:
  std::wstring area_, name_;
  T missing_;
};

inline const Field<> freeDiskMegabytes{L"Disk", L"FreeMB"};             // absent: the development machine's own
inline const Field<> dataProtectionFlags{L"DataProtection", L"Flags"};  // of the last CryptProtectData
inline const Field<> sleptSeconds{L"", L"SleptSeconds"};                // in which no unbiased time went by

}  // namespace sim
