// The power policy: when the display goes off and the computer sleeps, and at which times of the week it is put to
// sleep and woken. No Windows header.
#pragma once

#include "json/value.h"
#include "power/clock_time.h"

#include <cstdint>

namespace kiosk::power {

struct PowerSchedule {
  bool enabled = false;
  std::uint32_t sleepAt = 22 * 60;  // minutes after midnight, local time
  std::uint32_t wakeAt = 7 * 60;
  DayMask days = 0x3E;  // Monday to Friday

  friend bool operator==(const PowerSchedule&, const PowerSchedule&) = default;
};

struct PowerPolicy {
  std::int32_t screenOffMinutes = 15;  // of idleness, 0 to kMostMinutes; 0: never
  std::int32_t sleepMinutes = 0;       // the same
  PowerSchedule schedule;

  friend bool operator==(const PowerPolicy&, const PowerPolicy&) = default;
};

inline constexpr std::int32_t kMostMinutes = 240;

// Each parser leaves the record as it is when it returns false; members that it does not know are ignored.

// A whole number from 0 to kMostMinutes.
bool ParseMinutes(const json::Value& value, std::int32_t& minutes);

// An object with all of "enabled", "sleepAt", "wakeAt" (which differ) and "days" (some while enabled).
bool ParsePowerSchedule(const json::Value& value, PowerSchedule& schedule);

// An object with all of "screenOffMinutes", "sleepMinutes" and "schedule".
bool ParsePowerPolicy(const json::Value& value, PowerPolicy& policy);

// Whether the computer is to be awake at that local time, day 0 being Sunday: from the wake time of a day of the
// schedule to the sleep time after it, or, when idleness puts it to sleep, for as long as that takes.
bool WantsAwake(const PowerPolicy& policy, std::uint32_t day, std::uint32_t minuteOfDay);

// The canonical form: equal records give equal text, and parsing it gives the record again.
json::Value PowerPolicyToJson(const PowerPolicy& policy);

}  // namespace kiosk::power
