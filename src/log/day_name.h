// Names of the folders in which a day's log files lie. No Windows header.
#pragma once

#include <array>
#include <string_view>

namespace kiosk::log {

// "2026-11-21", with a zero at its end. The year has at most four digits.
std::array<wchar_t, 16> DayName(unsigned year, unsigned month, unsigned day) noexcept;

// "YYYY-MM-DD", digits and dashes only, whether there is such a day or not.
bool IsDayName(std::wstring_view name) noexcept;

}  // namespace kiosk::log
