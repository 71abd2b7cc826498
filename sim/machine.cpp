#include "sim/machine.h"

namespace sim {
namespace {

std::wstring KeyOf(const std::wstring& area) {
  return area.empty() ? std::wstring(kMachineKey) : std::wstring(kMachineKey) + L"\\" + area;
}

// The names that `next` finds below the area's key, one after the other.
template <typename Next>
std::vector<std::wstring> Names(const std::wstring& area, Next next) {
  std::vector<std::wstring> names;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), 0, KEY_READ, &key) == 0) {
    wchar_t name[1024];
    while (next(key, static_cast<DWORD>(names.size()), name, DWORD{1024}) == 0) {
      names.emplace_back(name);
    }
    RegCloseKey(key);
  }
  return names;
}

}  // namespace

std::optional<std::wstring> RegistryText(const std::wstring& key, const wchar_t* name) {
  wchar_t text[2048];
  DWORD size = sizeof(text);
  const LSTATUS error = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size);
  return error == ERROR_SUCCESS ? std::optional<std::wstring>(text) : std::nullopt;
}

std::optional<DWORD> RegistryNumber(const std::wstring& key, const wchar_t* name) {
  DWORD number = 0;
  DWORD size = sizeof(number);
  const LSTATUS error = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_DWORD, nullptr, &number, &size);
  return error == ERROR_SUCCESS ? std::optional(number) : std::nullopt;
}

void SetRegistryText(const std::wstring& key, const wchar_t* name, const std::wstring& text, DWORD type) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, type, text.c_str(),
                  static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

std::optional<std::wstring> ReadText(const std::wstring& area, const std::wstring& name) {
  return RegistryText(KeyOf(area), name.c_str());
}

std::optional<DWORD> ReadNumber(const std::wstring& area, const std::wstring& name) {
  return RegistryNumber(KeyOf(area), name.c_str());
}

void WriteText(const std::wstring& area, const std::wstring& name, const std::wstring& text) {
  SetRegistryText(KeyOf(area), name.c_str(), text);
}

void WriteNumber(const std::wstring& area, const std::wstring& name, DWORD number) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str(), REG_DWORD, &number, sizeof(number));
}

void ForgetValue(const std::wstring& area, const std::wstring& name) {
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str());
}

bool AreaExists(const std::wstring& area) {
  HKEY key = nullptr;
  const bool exists = RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS;
  RegCloseKey(key);
  return exists;
}

std::vector<std::wstring> AreaNames(const std::wstring& area) { return Names(area, RegEnumKeyW); }

std::vector<std::wstring> ValueNames(const std::wstring& area) {
  return Names(area, [](HKEY key, DWORD index, wchar_t* name, DWORD size) {
    return RegEnumValueW(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
  });
}

void ForgetArea(const std::wstring& area) { RegDeleteTreeW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str()); }

}  // namespace sim
