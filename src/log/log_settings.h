// The logging settings of an administrator: each value is looked up under the key of group policy first, then under the
// product's own, then under the one that other programs of the maker share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::log {

// The product's own key, and all of them in the order of the look-up.
inline constexpr wchar_t kSettingsKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Log";
inline constexpr const wchar_t* kSettingsKeys[] = {L"SOFTWARE\\Policies\\Norvane\\Tessaly\\Log", kSettingsKey,
                                                   L"SOFTWARE\\Norvane\\Stream\\Log"};

// An empty text counts as absent, and is what is returned when the value is in no key.
std::wstring ReadSettingString(const wchar_t* name);
std::optional<std::uint32_t> ReadSettingNumber(const wchar_t* name);

}  // namespace kiosk::log
