// Power policies and the week they make. What is a policy, the fuzz target asks of any text.
#include "power/power_policy.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "tests/support/words.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace kiosk::power {
namespace {

TEST(PowerPolicy, DefaultsAndCanonicalForm) {
  constexpr char kDefaults[] =
      R"({"screenOffMinutes":15,"sleepMinutes":0,"schedule":{"enabled":false,"sleepAt":"22:00",)"
      R"("wakeAt":"07:00","days":[1,2,3,4,5]}})";
  EXPECT_EQ(json::Serialise(PowerPolicyToJson({})), kDefaults);
  PowerPolicy policy{7, 8, {true, 9, 10, 11}};
  EXPECT_TRUE(ParsePowerPolicy(
      *json::Parse(R"( {"x":[1],"schedule":{"days":[5,3,1,2,4.0],"wakeAt":"07:00","y":{},"sleepAt":"22:00",)"
                   R"("enabled":false},"sleepMinutes":-0,"screenOffMinutes":1.5e1} )"),
      policy));
  EXPECT_EQ(json::Serialise(PowerPolicyToJson(policy)), kDefaults);
}

TEST(PowerPolicy, WhenTheScheduleWantsTheComputerAwake) {
  struct {
    const char *wakeAt, *sleepAt, *days;
    std::int32_t sleepMinutes;
    std::uint32_t day;
    const char *awake, *not_;  // times of that day
  } const cases[] = {{"07:00", "22:00", "[1,5]", 0, 1, "07:00|12:00|21:59", "00:00|06:59|22:00|23:59"},
                     {"07:00", "22:00", "[1,5]", 0, 2, "", "00:00|07:00|12:00"},
                     {"07:00", "22:00", "[1]", 30, 1, "07:00|07:29", "06:59|07:30|12:00"},
                     {"07:00", "07:20", "[1]", 30, 1, "07:19", "07:20|07:29"},
                     {"18:00", "02:00", "[6]", 0, 6, "18:00|23:59", "00:00|01:59|17:59"},
                     {"18:00", "02:00", "[6]", 0, 0, "00:00|01:59", "02:00|18:00"},
                     {"23:50", "02:00", "[0]", 20, 1, "00:09", "00:10"},
                     {"00:00", "23:59", "[3]", 0, 3, "00:00|23:58", "23:59"}};
  for (const auto& each : cases) {
    PowerPolicy policy{1, each.sleepMinutes, {}};
    ASSERT_TRUE(ParsePowerSchedule(*json::Parse(std::string(R"({"enabled":true,"sleepAt":")") + each.sleepAt +
                                                R"(","wakeAt":")" + each.wakeAt + R"(","days":)" + each.days + "}"),
                                   policy.schedule));
    for (const bool awake : {true, false}) {
      for (const std::string& time : test::Words(awake ? each.awake : each.not_)) {
        const auto minute = ParseClockTime(json::Value(time));
        EXPECT_TRUE(!minute || WantsAwake(policy, each.day, *minute) == awake) << each.wakeAt << " " << time;
        policy.schedule.enabled = false;
        EXPECT_FALSE(WantsAwake(policy, each.day, minute.value_or(0)));
        policy.schedule.enabled = true;
      }
    }
  }
}

}  // namespace
}  // namespace kiosk::power
