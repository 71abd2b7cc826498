// What is taken for a policy comes back from its own text, and equal policies have equal texts.
#include "json/parse.h"
#include "json/serialise.h"
#include "power/power_policy.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using kiosk::power::PowerPolicy;

void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

bool InBounds(const PowerPolicy& policy) {
  const auto minutes = [](std::int32_t value) { return value >= 0 && value <= kiosk::power::kMostMinutes; };
  const auto& schedule = policy.schedule;
  return minutes(policy.screenOffMinutes) && minutes(policy.sleepMinutes) &&
         schedule.sleepAt < kiosk::power::kMinutesOfDay && schedule.wakeAt < kiosk::power::kMinutesOfDay &&
         schedule.sleepAt != schedule.wakeAt && schedule.days < 128 && (!schedule.enabled || schedule.days != 0);
}

void Check(const kiosk::json::Value& value) {
  const PowerPolicy before;
  PowerPolicy policy;
  if (!kiosk::power::ParsePowerPolicy(value, policy)) {
    Require(policy == before);
    return;
  }
  Require(InBounds(policy));
  const std::string text = kiosk::json::Serialise(kiosk::power::PowerPolicyToJson(policy));
  const auto again = kiosk::json::Parse(text);
  PowerPolicy second;
  Require(again && kiosk::power::ParsePowerPolicy(*again, second) && second == policy);
  Require(kiosk::json::Serialise(kiosk::power::PowerPolicyToJson(second)) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto value = kiosk::json::Parse({reinterpret_cast<const char*>(data), size});
  if (value) {
    Check(*value);
    Check(kiosk::json::Member(*value, "power"));
  }
  return 0;
}
