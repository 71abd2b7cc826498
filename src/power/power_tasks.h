// The two tasks that put the terminal to sleep and wake it, as a schedule wants them.
#pragma once

#include "power/power_policy.h"
#include "win32/winapi.h"

#include <string>

namespace kiosk::power {

// Registers both tasks, and lets the scheme's wake timers run, for a schedule that is enabled; removes the tasks for
// one that is not. Does nothing when all is as it should be. `changed` becomes true when a value of the scheme was
// written. What the tasks are registered for is noted as "PowerScheduleApplied". Returns empty, or "wake_unavailable"
// when the terminal would not be woken. The caller holds the power lock and is in a COM apartment.
std::string ApplyPowerSchedule(const GUID& scheme, const PowerSchedule& schedule, bool& changed);

// Removes both tasks, whatever the schedule, and tries it twice; one that stays takes both away when it runs. Deleting
// "PowerScheduleApplied" is left to the caller, who is in a COM apartment.
void RemovePowerTasks();

}  // namespace kiosk::power
