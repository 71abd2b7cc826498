// The power policy on the computer: applied, and taken back. Worker and connection threads come here.
#pragma once

#include "power/power_policy.h"
#include "win32/lock.h"

namespace kiosk::power {

// Held by whoever applies a policy, changes the override, or restores. It may be taken inside the account lock.
win32::Lock& PowerLock() noexcept;

// Sets the active scheme's time-outs and the schedule's tasks where they differ, and stores what is wrong as
// "PowerError". The computer's own values are saved as "PriorPower" before the first of them changes; what the tasks
// are registered for is noted as "PowerScheduleApplied". Failures are logged; one does not stop the rest. The caller
// has made sure, under the power lock, that the terminal is enrolled.
void ApplyPowerScheme(const PowerPolicy& policy) REQUIRES(PowerLock());

// Applies the policy in force, unless the terminal is no longer enrolled or never got a valid policy.
void ApplyEffectivePowerPolicy();

// For a terminal that is left without a policy: removes the tasks, puts the scheme back and deletes "PowerError",
// "PowerScheduleApplied" and "PriorPower". The caller holds the power lock.
void UndoPowerPolicy() REQUIRES(PowerLock());

// For the end of kiosk mode: removes the tasks, puts the scheme back and deletes all values of this area. Takes the
// power lock.
void RestorePowerSettings();

}  // namespace kiosk::power
