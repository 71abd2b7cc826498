#include "log/log_settings.h"

#include "state/registry.h"

namespace kiosk::log {
std::optional<std::wstring> ReadSettingString(const wchar_t* name) {
  for (const wchar_t* key : kSettingsKeys) {
    if (auto text = state::ReadString(key, name)) {
      return text;
    }
  }
  return std::nullopt;
}

std::optional<std::uint32_t> ReadSettingNumber(const wchar_t* name) {
  for (const wchar_t* key : kSettingsKeys) {
    if (const auto number = state::ReadDword(key, name)) {
      return *number;
    }
  }
  return std::nullopt;
}

}  // namespace kiosk::log
