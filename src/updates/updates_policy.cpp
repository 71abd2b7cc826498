#include "updates/updates_policy.h"

#include <utility>

namespace kiosk::updates {
namespace {

constexpr std::uint32_t kHours = 24;
constexpr std::uint32_t kLongestActive = 18;  // Windows takes no longer range

}  // namespace

bool ParseUpdatesPolicy(const json::Value& value, UpdatesPolicy& policy) {
  const json::Value& automatic = json::Member(value, "automatic");
  const json::Value& window = json::Member(value, "window");
  if (!automatic.IsBool() || !window.IsObject()) {
    return false;
  }
  const auto start = power::ParseClockTime(json::Member(window, "start"));
  const auto end = power::ParseClockTime(json::Member(window, "end"));
  const auto days = power::ParseDays(json::Member(window, "days"));
  if (!start || !end || *start == *end || days.value_or(0) == 0) {
    return false;
  }
  policy = {automatic.boolean(), *start, *end, *days};
  return true;
}

json::Value UpdatesPolicyToJson(const UpdatesPolicy& policy) {
  json::Value window = json::Value::Object();
  window.Set("start", power::ClockTimeText(policy.start));
  window.Set("end", power::ClockTimeText(policy.end));
  window.Set("days", power::DaysToJson(policy.days));
  json::Value object = json::Value::Object();
  object.Set("automatic", policy.automatic);
  object.Set("window", std::move(window));
  return object;
}

ActiveHours ActiveHoursAround(const UpdatesPolicy& policy) noexcept {
  const std::uint32_t end = policy.start / 60;
  const std::uint32_t start = (policy.end + 59) / 60 % kHours;
  const std::uint32_t length = (end + kHours - start) % kHours;
  if (length > kLongestActive) {
    return {(end + kHours - kLongestActive) % kHours, end, true};
  }
  return {start, end, length != 0};
}

}  // namespace kiosk::updates
