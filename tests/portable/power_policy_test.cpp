// Power policies as the portal and the shell send them.
#include "power/power_policy.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "tests/support/words.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace kiosk::power {
namespace {

constexpr char kSchedule[] = R"({"enabled":true,"sleepAt":"22:00","wakeAt":"07:00","days":[1]})";

// The canonical form of what was sent; "refused" when it is no policy, and then the record is untouched.
std::string Canonical(const std::string& text) {
  PowerPolicy policy{7, 8, {true, 9, 10, 11}};
  const PowerPolicy before = policy;
  const auto value = json::Parse(text);
  if (!value) {
    return "no JSON";
  }
  if (!ParsePowerPolicy(*value, policy)) {
    return policy == before ? "refused" : "refused and changed";
  }
  return json::Serialise(PowerPolicyToJson(policy));
}

std::string WithMinutes(const std::string& screenOff, const std::string& sleep) {
  return "{\"screenOffMinutes\":" + screenOff + ",\"sleepMinutes\":" + sleep + ",\"schedule\":" + kSchedule + "}";
}

std::string WithSchedule(const std::string& schedule) {
  return R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":)" + schedule + "}";
}

TEST(PowerPolicy, DefaultsAndCanonicalForm) {
  constexpr char kDefaults[] =
      R"({"screenOffMinutes":15,"sleepMinutes":0,"schedule":{"enabled":false,"sleepAt":"22:00",)"
      R"("wakeAt":"07:00","days":[1,2,3,4,5]}})";
  EXPECT_EQ(json::Serialise(PowerPolicyToJson({})), kDefaults);
  EXPECT_EQ(Canonical(kDefaults), kDefaults);
  EXPECT_EQ(Canonical(R"( {"x":[1],"schedule":{"days":[5,3,1,2,4.0],"wakeAt":"07:00","y":{},"sleepAt":"22:00",)"
                      R"("enabled":false},"sleepMinutes":-0,"screenOffMinutes":1.5e1} )"),
            kDefaults);
}

TEST(PowerPolicy, Minutes) {
  for (const auto& [accepted, list] :
       {std::pair(true, "0|-0|1|240|2.4e2"), std::pair(false,
                                                       "241|-1|2.5|239.9999999|\"15\"|null|true|[15]|{}|1e308|-1e308|"
                                                       "9007199254740993|1e-300")}) {
    for (const std::string& minutes : test::Words(list)) {
      EXPECT_EQ(Canonical(WithMinutes(minutes, "0")) != "refused", accepted) << minutes;
      EXPECT_EQ(Canonical(WithMinutes("0", minutes)) != "refused", accepted) << minutes;
    }
  }
}

TEST(PowerPolicy, ClockTimes) {
  struct {
    const char* text;
    std::uint32_t minutes;
  } const good[] = {{"\"00:00\"", 0}, {"\"23:59\"", 1439}, {"\"19:09\"", 1149}};
  for (const auto& each : good) {
    EXPECT_EQ(ParseClockTime(*json::Parse(each.text)), each.minutes);
    EXPECT_EQ('"' + ClockTimeText(each.minutes) + '"', each.text);
  }
  for (const std::string& bad :
       test::Words(R"("7:00"|"24:00"|"12:60"|"12-30"|"-1:30"|" 1:30"|"+1:30"|"1a:30"|"12:3/"|"12:3:"|"12:300"|""|)"
                   R"("12\u000030"|"１2:0"|1230|null|["12:30"])")) {
    EXPECT_FALSE(ParseClockTime(*json::Parse(bad))) << bad;
    EXPECT_EQ(Canonical(WithSchedule(R"({"enabled":false,"sleepAt":"01:00","days":[],"wakeAt":)" + bad + "}")),
              "refused");
  }
}

TEST(PowerPolicy, Days) {
  struct {
    const char* text;
    DayMask mask;
    const char* canonical;
  } const good[] = {{"[]", 0, "[]"},
                    {"[6,0]", 65, "[0,6]"},
                    {"[-0]", 1, "[0]"},
                    {"[3.0]", 8, "[3]"},
                    {"[6,5,4,3,2,1,0]", 127, "[0,1,2,3,4,5,6]"}};
  for (const auto& each : good) {
    EXPECT_EQ(ParseDays(*json::Parse(each.text)), each.mask) << each.text;
    EXPECT_EQ(json::Serialise(DaysToJson(each.mask)), each.canonical);
  }
  for (const std::string& bad :
       test::Words(R"([1,1]|[0,-0]|[7]|[-1]|[1.5]|[6.999999999]|["1"]|[null]|[true]|[[1]]|[1e308]|[9007199254740993]|)"
                   R"([0,1,2,3,4,5,6,7]|[0,1,2,3,4,5,6,6]|{}|"1"|null|62)")) {
    EXPECT_FALSE(ParseDays(*json::Parse(bad))) << bad;
  }
}

TEST(PowerPolicy, Schedules) {
  for (const char* good : {kSchedule, R"({"enabled":false,"sleepAt":"00:00","wakeAt":"00:01","days":[]})"}) {
    EXPECT_EQ(Canonical(WithSchedule(good)), WithSchedule(good));
  }
  const std::string deep = std::string(10, '[') + std::string(10, ']');
  for (const std::string& bad : test::Words(
           R"(null|[]|"x"|{}|{"enabled":true,"sleepAt":"22:00","wakeAt":"07:00","days":[]}|)"
           R"({"enabled":false,"sleepAt":"22:00","wakeAt":"22:00","days":[1]}|)"
           R"({"enabled":1,"sleepAt":"22:00","wakeAt":"07:00","days":[1]}|)"
           R"({"enabled":"true","sleepAt":"22:00","wakeAt":"07:00","days":[1]}|)"
           R"({"enabled":true,"sleepAt":"22:00","wakeAt":"07:00"}|{"enabled":true,"sleepAt":"22:00","days":[1]}|)"
           R"({"enabled":true,"wakeAt":"22:00","days":[1]}|{"sleepAt":"22:00","wakeAt":"07:00","days":[1]}|)" +
           deep + R"(|{"enabled":true,"sleepAt":"22:00","wakeAt":"07:00","days":)" + deep + "}")) {
    EXPECT_EQ(Canonical(WithSchedule(bad)), "refused") << bad;
  }
  for (const std::string& other : test::Words(R"(null|[]|7|"{}"|{}|{"screenOffMinutes":1,"sleepMinutes":2})")) {
    EXPECT_EQ(Canonical(other), "refused") << other;
  }
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
