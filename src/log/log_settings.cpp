#include "log/log_settings.h"

#include "state/registry.h"

namespace kiosk::log {

std::wstring ReadSettingString(const wchar_t* name) {
  std::wstring text;
  for (std::size_t i = 0; i < std::size(kSettingsKeys) && text.empty(); ++i) {
    text = state::ReadString(kSettingsKeys[i], name).value_or(L"");
  }
  return text;
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
