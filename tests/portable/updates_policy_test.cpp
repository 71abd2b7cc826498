// The update policy's text, its window as a date, and the hours around it. What is a policy, the fuzz target asks of
// any text.
#include "updates/updates_policy.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "updates/window_key.h"

#include <gtest/gtest.h>

#include <string>

namespace kiosk::updates {
namespace {

TEST(UpdatesPolicyTest, OneTextForEachPolicy) {
  EXPECT_EQ(json::Serialise(UpdatesPolicyToJson({})),
            R"({"automatic":false,"window":{"start":"02:00","end":"05:00","days":[0,1,2,3,4,5,6]}})");
  UpdatesPolicy policy;
  EXPECT_TRUE(ParseUpdatesPolicy(
      *json::Parse(R"( {"x":[],"window":{"days":[6,5,0],"x":1,"end":"02:00","start":"22:00"},"automatic":true})"),
      policy));
  EXPECT_EQ(json::Serialise(UpdatesPolicyToJson(policy)),
            R"({"automatic":true,"window":{"start":"22:00","end":"02:00","days":[0,5,6]}})");
}

TEST(WindowKeyTest, TheDateOnWhichItOpened) {
  const UpdatesPolicy early{true, 120, 300, 0x7F};           // 02:00-05:00
  const UpdatesPolicy fridayNight{true, 1320, 120, 1 << 5};  // 22:00-02:00
  const UpdatesPolicy night{true, 1320, 120, 0x7F};
  const UpdatesPolicy sundays{true, 120, 300, 1};
  const UpdatesPolicy minute{true, 1439, 0, 0x7F};
  const struct {
    const UpdatesPolicy& policy;
    LocalTime now;
    const char* key;
  } cases[] = {
      {early, {2026, 11, 21, 1, 59}, ""},
      {early, {2026, 11, 21, 2, 0}, "2026-11-21"},
      {early, {2026, 11, 21, 4, 59}, "2026-11-21"},
      {early, {2026, 11, 21, 5, 0}, ""},
      {fridayNight, {2026, 11, 20, 22, 0}, "2026-11-20"},
      {fridayNight, {2026, 11, 21, 1, 30}, "2026-11-20"},
      {fridayNight, {2026, 11, 21, 2, 0}, ""},
      {fridayNight, {2026, 11, 20, 1, 30}, ""},
      {fridayNight, {2026, 11, 21, 22, 0}, ""},
      {night, {2028, 3, 1, 0, 0}, "2028-02-29"},
      {night, {2027, 3, 1, 0, 0}, "2027-02-28"},
      {night, {2100, 3, 1, 1, 59}, "2100-02-28"},
      {night, {2000, 3, 1, 1, 59}, "2000-02-29"},
      {night, {2027, 1, 1, 0, 30}, "2026-12-31"},
      {sundays, {2026, 11, 22, 3, 0}, "2026-11-22"},
      {sundays, {2026, 11, 23, 3, 0}, ""},
      {sundays, {2028, 2, 27, 3, 0}, "2028-02-27"},
      {minute, {2026, 11, 21, 23, 59}, "2026-11-21"},
      {minute, {2026, 11, 22, 0, 0}, ""},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(WindowKey(each.policy, each.now), each.key)
        << each.now.month << "-" << each.now.day << " " << each.now.hour << ":" << each.now.minute;
  }
}

TEST(ActiveHoursTest, EverythingButTheWindow) {
  const struct {
    std::uint32_t start, end, activeStart, activeEnd;
    bool set;
  } cases[] = {
      {120, 300, 8, 2, true},    // 21 hours, cut
      {1320, 120, 4, 22, true},  // 20 hours, cut
      {60, 90, 7, 1, true},      // 23 hours, cut
      {60, 420, 7, 1, true},     // exactly 18
      {0, 1380, 23, 0, true},    // one hour is left
      {0, 1381, 0, 0, false},    // none
      {719, 659, 11, 11, false}, {1380, 60, 5, 23, true},
  };
  for (const auto& each : cases) {
    const ActiveHours hours = ActiveHoursAround({true, each.start, each.end, 1});
    EXPECT_TRUE(hours.start == each.activeStart && hours.end == each.activeEnd && hours.set == each.set)
        << each.start << "-" << each.end << ": " << hours.start << "-" << hours.end;
  }
}

}  // namespace
}  // namespace kiosk::updates
