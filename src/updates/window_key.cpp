#include "updates/window_key.h"

#include <cstdint>
#include <cstdio>

namespace kiosk::updates {
namespace {

unsigned DaysOfMonth(unsigned year, unsigned month) {
  constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

LocalTime DayBefore(LocalTime date) {
  if (date.day > 1) {
    --date.day;
    return date;
  }
  if (date.month > 1) {
    --date.month;
  } else {
    --date.year;
    date.month = 12;
  }
  date.day = DaysOfMonth(date.year, date.month);
  return date;
}

// 0 is Sunday. By the method of Sakamoto for the Gregorian calendar.
unsigned Weekday(const LocalTime& date) {
  constexpr unsigned kOffsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  const unsigned year = date.month < 3 ? date.year - 1 : date.year;
  return (year + year / 4 - year / 100 + year / 400 + kOffsets[date.month - 1] + date.day) % 7;
}

}  // namespace

std::string WindowKey(const UpdatesPolicy& policy, const LocalTime& now) {
  const std::uint32_t minute = now.hour * 60 + now.minute;
  const bool pastMidnight = policy.start > policy.end;
  const bool morning = pastMidnight && minute < policy.end;
  const bool open = morning || (minute >= policy.start && (pastMidnight || minute < policy.end));
  const LocalTime date = morning ? DayBefore(now) : now;
  if (!open || (policy.days & (1U << Weekday(date))) == 0) {
    return {};
  }
  char key[40];
  static_cast<void>(std::snprintf(key, sizeof(key), "%04u-%02u-%02u", date.year, date.month, date.day));
  return key;
}

}  // namespace kiosk::updates
