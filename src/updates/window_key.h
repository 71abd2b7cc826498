// In which maintenance window a moment lies. Pure: the caller says what the local time is. No Windows header.
#pragma once

#include "updates/updates_policy.h"

#include <string>

namespace kiosk::updates {

// A moment of local time, as the clock on the wall shows it.
struct LocalTime {
  unsigned year;    // from 1
  unsigned month;   // 1 to 12
  unsigned day;     // 1 to 31
  unsigned hour;    // 0 to 23
  unsigned minute;  // 0 to 59
};

// The date on which the window that is open at `now` opened ("2026-11-21"); empty while none is open. A window past
// midnight keeps the date of its evening, and it is that day that must be one of the policy's.
std::string WindowKey(const UpdatesPolicy& policy, const LocalTime& now);

}  // namespace kiosk::updates
