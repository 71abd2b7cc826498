// The logging settings of an administrator: each value is looked up under the product's key first, then under the key
// that other programs of the maker share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::log {

// The product's own key, and both in the order of the look-up.
inline constexpr wchar_t kSettingsKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Log";
inline constexpr const wchar_t* kSettingsKeys[] = {kSettingsKey, L"SOFTWARE\\Norvane\\Stream\\Log"};

std::optional<std::wstring> ReadSettingString(const wchar_t* name);
std::optional<std::uint32_t> ReadSettingNumber(const wchar_t* name);

}  // namespace kiosk::log
