// The portal's decision about operating-system updates: whether the service installs them, and in which window. No
// Windows header.
#pragma once

#include "json/value.h"
#include "power/clock_time.h"

#include <cstdint>

namespace kiosk::updates {

struct UpdatesPolicy {
  bool automatic = false;      // the service installs updates in the window
  std::uint32_t start = 120;   // minutes after midnight, local time
  std::uint32_t end = 300;     // the same, exclusive; before `start`: on the day after
  power::DayMask days = 0x7F;  // on which days the window opens

  friend bool operator==(const UpdatesPolicy&, const UpdatesPolicy&) = default;
};

// True, and `policy` is set, only when every member is there and right: "automatic" a boolean, the window's ends clock
// times that differ, its days not empty. Otherwise `policy` stays as it is. Unknown members are ignored.
bool ParseUpdatesPolicy(const json::Value& value, UpdatesPolicy& policy);

// The canonical form: equal policies give equal text.
json::Value UpdatesPolicyToJson(const UpdatesPolicy& policy);

// The hours in which Windows must not restart by itself: everything but the window, in whole hours, at most 18 of them.
// They begin at `start` and end before `end`, each 0 to 23. `set` is false when the window leaves no whole hour out.
struct ActiveHours {
  std::uint32_t start;
  std::uint32_t end;
  bool set;
};
ActiveHours ActiveHoursAround(const UpdatesPolicy& policy) noexcept;

}  // namespace kiosk::updates
