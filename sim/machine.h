// The state of the simulated machine: values in the registry, in one key per area below HKLM\SOFTWARE\SimulatedWindows.
// It outlives a killed process, and a test or a person can set it up and read it back with any registry tool.
#pragma once

#include "win32/winapi.h"

#include <optional>
#include <string>
#include <vector>

namespace sim {

inline constexpr wchar_t kMachineKey[] = L"SOFTWARE\\SimulatedWindows";

// `area` is a key below the machine's key ("Sessions\\2"), or "" for that key itself.
std::optional<std::wstring> ReadText(const std::wstring& area, const std::wstring& name);
std::optional<DWORD> ReadNumber(const std::wstring& area, const std::wstring& name);
void WriteText(const std::wstring& area, const std::wstring& name, const std::wstring& text);
void WriteNumber(const std::wstring& area, const std::wstring& name, DWORD number);
void ForgetValue(const std::wstring& area, const std::wstring& name);

bool AreaExists(const std::wstring& area);
// The names of the areas right below this one.
std::vector<std::wstring> AreaNames(const std::wstring& area);
// The names of an area's values.
std::vector<std::wstring> ValueNames(const std::wstring& area);
void ForgetArea(const std::wstring& area);

// A machine as it left the factory.
inline void ForgetMachine() { ForgetArea(L""); }

}  // namespace sim
