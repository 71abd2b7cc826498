#include "sim/machine.h"

namespace sim {
namespace {

std::wstring KeyOf(const std::wstring& area) {
  return area.empty() ? std::wstring(kMachineKey) : std::wstring(kMachineKey) + L"\\" + area;
}

void Write(const std::wstring& area, const std::wstring& name, DWORD type, const void* data, std::size_t size) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str(), type, data, static_cast<DWORD>(size));
}

}  // namespace

std::optional<std::wstring> ReadText(const std::wstring& area, const std::wstring& name) {
  wchar_t text[2048];
  DWORD size = sizeof(text);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str(), RRF_RT_REG_SZ, nullptr, text, &size) != 0) {
    return std::nullopt;
  }
  return text;
}

std::optional<DWORD> ReadNumber(const std::wstring& area, const std::wstring& name) {
  DWORD number = 0;
  DWORD size = sizeof(number);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str(), RRF_RT_REG_DWORD, nullptr, &number, &size) !=
      0) {
    return std::nullopt;
  }
  return number;
}

void WriteText(const std::wstring& area, const std::wstring& name, const std::wstring& text) {
  Write(area, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void WriteNumber(const std::wstring& area, const std::wstring& name, DWORD number) {
  Write(area, name, REG_DWORD, &number, sizeof(number));
}

void ForgetValue(const std::wstring& area, const std::wstring& name) {
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), name.c_str());
}

bool AreaExists(const std::wstring& area) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), 0, KEY_READ, &key) != 0) {
    return false;
  }
  RegCloseKey(key);
  return true;
}

std::vector<std::wstring> AreaNames(const std::wstring& area) {
  std::vector<std::wstring> names;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), 0, KEY_READ, &key) == 0) {
    wchar_t name[256];
    while (RegEnumKeyW(key, static_cast<DWORD>(names.size()), name, 256) == 0) {
      names.emplace_back(name);
    }
    RegCloseKey(key);
  }
  return names;
}

std::vector<std::wstring> ValueNames(const std::wstring& area) {
  std::vector<std::wstring> names;
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, KeyOf(area).c_str(), 0, KEY_READ, &key) == 0) {
    wchar_t name[1024];
    DWORD size = 1024;
    while (RegEnumValueW(key, static_cast<DWORD>(names.size()), name, &size, nullptr, nullptr, nullptr, nullptr) == 0) {
      names.emplace_back(name, size);
      size = 1024;
    }
    RegCloseKey(key);
  }
  return names;
}

void ForgetArea(const std::wstring& area) {
  const std::wstring path = KeyOf(area);
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
}

}  // namespace sim
