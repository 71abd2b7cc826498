#include "state/made_keys.h"

#include "state/kiosk_state.h"
#include "win32/handle.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kiosk::state {
namespace {

constexpr wchar_t kSeparator = L'|';  // in none of the keys' names

bool IsMissing(const std::wstring& path) {
  win32::RegistryKey key;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, key.Put()) ==
         ERROR_FILE_NOT_FOUND;
}

bool IsEmpty(const std::wstring& path) {
  win32::RegistryKey key;
  DWORD subkeys = 0;
  DWORD values = 0;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, key.Put()) ==
             ERROR_SUCCESS &&
         RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr, nullptr,
                          nullptr, nullptr) == ERROR_SUCCESS &&
         subkeys == 0 && values == 0;
}

// The levels of a path, from the top: "A", "A\B", "A\B\C".
std::vector<std::wstring> Levels(const std::wstring& path) {
  std::vector<std::wstring> levels;
  for (std::size_t end = 0; end != std::wstring::npos;) {
    end = path.find(L'\\', end + 1);
    levels.push_back(path.substr(0, end));
  }
  return levels;
}

std::vector<std::wstring> Split(const std::wstring& text) {
  std::vector<std::wstring> parts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(kSeparator, begin), text.size());
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

}  // namespace

bool NoteMissingKeys(const StateValue& note, std::initializer_list<const wchar_t*> keys) {
  std::vector<std::wstring> missing;
  std::wstring text;
  for (const wchar_t* key : keys) {
    for (const std::wstring& level : Levels(key)) {
      if (IsMissing(level) && std::find(missing.begin(), missing.end(), level) == missing.end()) {
        missing.push_back(level);
        text += (text.empty() ? L"" : std::wstring(1, kSeparator)) + level;
      }
    }
  }
  if (text.empty()) {
    return !ReadState(note) || DeleteStateValue(note);
  }
  return WriteStateString(note, text);
}

void DeleteMadeKeys(const StateValue& note) {
  RawValue noted;
  if (ReadState(note, noted) != ERROR_SUCCESS) {
    return;
  }
  std::vector<std::wstring> keys = Split(noted.Text().value_or(L""));
  // A key's path is longer than those of the keys above it.
  std::sort(keys.begin(), keys.end(), [](const auto& one, const auto& other) { return one.size() > other.size(); });
  for (const std::wstring& key : keys) {
    if (IsEmpty(key)) {
      RegDeleteKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), KEY_WOW64_64KEY, 0);
    }
  }
  DeleteStateValue(note);
}

}  // namespace kiosk::state
