// Times of day and sets of weekdays as the portal and the kiosk shell write them, for the power schedule and the update
// window alike. No Windows header.
#pragma once

#include "json/value.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::power {

inline constexpr std::uint32_t kMinutesOfDay = 24 * 60;

// Bit d is set when day d is meant: 0 is Sunday, 6 is Saturday. This is also the order of a weekly task trigger.
using DayMask = std::uint32_t;

// Minutes after midnight of a string "HH:MM" of exactly five characters, 00:00 to 23:59. Empty for anything else.
std::optional<std::uint32_t> ParseClockTime(const json::Value& value);

// "HH:MM" of minutes after midnight, 0 to 1439.
std::string ClockTimeText(std::uint32_t minutes);

// The mask of an array of at most 7 whole numbers 0 to 6 without repetition; an empty array is 0. Empty for anything
// else: one bad element refuses the whole array.
std::optional<DayMask> ParseDays(const json::Value& value);

// The numbers of the days that are set, ascending.
json::Value DaysToJson(DayMask days);

}  // namespace kiosk::power
