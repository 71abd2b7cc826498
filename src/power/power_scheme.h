// The power policy on the computer: applied, and taken back. Worker and connection threads come here.
#pragma once

#include "power/power_policy.h"
#include "win32/lock.h"

namespace kiosk::power {

// Serialises whoever applies a policy, changes the override, or restores; ranks above the account lock.
win32::Lock& PowerLock() noexcept;

// Sets the active scheme's time-outs and the schedule's tasks, and stores what is wrong as "PowerError". A policy that
// is in force already is only compared. Failures are logged; one does not stop the rest. The caller holds the power
// lock and has asked whether the terminal is enrolled since.
void ApplyPowerScheme(const PowerPolicy& policy) REQUIRES(PowerLock());

// Applies the policy in force, unless the terminal is no longer enrolled or never got a valid policy.
void ApplyEffectivePowerPolicy();

// For a terminal that no policy is left for: removes the tasks, puts the scheme back and deletes what was noted of
// that. The caller holds the power lock.
void UndoPowerPolicy() REQUIRES(PowerLock());

// For the end of kiosk mode: removes the tasks, puts the scheme back and deletes all values of this area. Takes the
// power lock.
void RestorePowerSettings();

}  // namespace kiosk::power
