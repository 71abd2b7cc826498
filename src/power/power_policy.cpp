#include "power/power_policy.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kiosk::power {

bool ParseMinutes(const json::Value& value, std::int32_t& minutes) {
  const double number = value.number();
  // Written so that a NaN fails it; only then is the conversion defined.
  if (!value.IsNumber() || !(number >= 0 && number <= kMostMinutes)) {
    return false;
  }
  const auto whole = static_cast<std::int32_t>(number);
  if (static_cast<double>(whole) != number) {
    return false;
  }
  minutes = whole;
  return true;
}

bool ParsePowerSchedule(const json::Value& value, PowerSchedule& schedule) {
  const json::Value& enabled = json::Member(value, "enabled");
  const std::optional<std::uint32_t> sleepAt = ParseClockTime(json::Member(value, "sleepAt"));
  const std::optional<std::uint32_t> wakeAt = ParseClockTime(json::Member(value, "wakeAt"));
  const std::optional<DayMask> days = ParseDays(json::Member(value, "days"));
  if (!enabled.IsBool() || !sleepAt || !wakeAt || *sleepAt == *wakeAt || !days || (enabled.boolean() && *days == 0)) {
    return false;
  }
  schedule = {enabled.boolean(), *sleepAt, *wakeAt, *days};
  return true;
}

bool ParsePowerPolicy(const json::Value& value, PowerPolicy& policy) {
  PowerPolicy parsed;
  if (!ParseMinutes(json::Member(value, "screenOffMinutes"), parsed.screenOffMinutes) ||
      !ParseMinutes(json::Member(value, "sleepMinutes"), parsed.sleepMinutes) ||
      !ParsePowerSchedule(json::Member(value, "schedule"), parsed.schedule)) {
    return false;
  }
  policy = parsed;
  return true;
}

bool WantsAwake(const PowerPolicy& policy, std::uint32_t day, std::uint32_t minuteOfDay) {
  const PowerSchedule& schedule = policy.schedule;
  const auto sinceWake = [&](std::uint32_t minute) {
    return (minute + kMinutesOfDay - schedule.wakeAt) % kMinutesOfDay;
  };
  const std::uint32_t wokenOn = minuteOfDay >= schedule.wakeAt ? day : (day + 6) % 7;  // or the evening before
  std::uint32_t length = sinceWake(schedule.sleepAt);
  if (policy.sleepMinutes != 0) {
    length = std::min(length, static_cast<std::uint32_t>(policy.sleepMinutes));
  }
  return schedule.enabled && (schedule.days >> wokenOn & 1U) != 0 && sinceWake(minuteOfDay) < length;
}

json::Value PowerPolicyToJson(const PowerPolicy& policy) {
  json::Value schedule = json::Value::Object();
  schedule.Set("enabled", policy.schedule.enabled);
  schedule.Set("sleepAt", ClockTimeText(policy.schedule.sleepAt));
  schedule.Set("wakeAt", ClockTimeText(policy.schedule.wakeAt));
  schedule.Set("days", DaysToJson(policy.schedule.days));
  json::Value object = json::Value::Object();
  object.Set("screenOffMinutes", policy.screenOffMinutes);
  object.Set("sleepMinutes", policy.sleepMinutes);
  object.Set("schedule", std::move(schedule));
  return object;
}

}  // namespace kiosk::power
