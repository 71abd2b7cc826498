#include "power/power_scheme.h"

#include "enrolment/enrolment.h"
#include "log/log.h"
#include "power/active_scheme.h"
#include "power/power_policy_store.h"
#include "power/power_tasks.h"
#include "power/scheme_values.h"
#include "state/kiosk_state.h"
#include "win32/com.h"
#include "win32/wide_text.h"

#include <initializer_list>
#include <string>

namespace kiosk::power {
namespace {

win32::Lock powerLock{win32::LockRank::kPower};

// Values were written, and the scheme was not made active again: that failed. When the process begins an earlier one
// may have ended between the two.
bool activationOwed GUARDED_BY(PowerLock()) = true;

// Of the last try to activate. The same error is logged once.
DWORD activationError GUARDED_BY(PowerLock()) = ERROR_SUCCESS;

constexpr DWORD kSecondsPerMinute = 60;

DWORD Seconds(std::int32_t minutes) { return static_cast<DWORD>(minutes) * kSecondsPerMinute; }

// Changed values take effect when the scheme is made the active one again.
void Activate(const GUID& scheme, const PowerPolicy& policy, bool changed) REQUIRES(PowerLock()) {
  const DWORD error = PowerSetActiveScheme(nullptr, &scheme);
  activationOwed = error != ERROR_SUCCESS;
  if (error != ERROR_SUCCESS && error != activationError) {
    log::Log(log::kError, log::kKiosk, "power: cannot re-apply the active scheme (%lu)", error);
  } else if (error == ERROR_SUCCESS && changed) {
    log::Log(log::kNotice, log::kKiosk, "power: screen off %d min, sleep %d min (0 = never)", policy.screenOffMinutes,
             policy.sleepMinutes);
  }
  activationError = error;
}

// Removes the tasks and puts the scheme back, then deletes `values` in that order, and the copies: until then a restore
// that was cut short is done again from them. Copies that cannot be read now stay; those that are done with would be
// taken for the next enrolment's, so their deletion is tried twice.
void TakeBack(std::initializer_list<state::StateValue> values) REQUIRES(PowerLock()) {
  const win32::ComApartment apartment;
  RemovePowerTasks();
  const bool restored = RestorePriorPower();
  state::DeleteStateValues(values);
  if (restored && !state::DeleteStateValue(state::kPriorPower)) {
    state::DeleteStateValue(state::kPriorPower);
  }
}

}  // namespace

win32::Lock& PowerLock() noexcept { return powerLock; }

void ApplyPowerScheme(const PowerPolicy& policy) {
  const win32::ComApartment apartment;
  const ActiveScheme active;
  if (!active) {
    log::Log(log::kError, log::kKiosk, "power: no active power scheme (%lu)", active.Error());
    return;
  }
  const GUID& scheme = *active.Id();
  bool changed = false;
  SetPowerValue(scheme, SchemeSetting::kScreenOff, Seconds(policy.screenOffMinutes), changed);
  SetPowerValue(scheme, SchemeSetting::kSleep, Seconds(policy.sleepMinutes), changed);
  const std::string error = ApplyPowerSchedule(scheme, policy.schedule, changed);
  // No value is written before the copies are: without these there is nothing to activate.
  if (changed || (activationOwed && !state::ReadStateString(state::kPriorPower).empty())) {
    Activate(scheme, policy, changed);
  } else {
    activationOwed = false;
  }
  if (state::SetStateStringIfChanged(state::kPowerError, win32::ToWide(error)) && !error.empty()) {
    log::Log(log::kWarn, log::kKiosk, "power: %s", error.c_str());
  }
}

void ApplyEffectivePowerPolicy() {
  const win32::LockGuard guard(PowerLock());
  PowerPolicy policy;
  if (enrolment::IsEnrolled() && LoadEffectivePowerPolicy(policy)) {
    ApplyPowerScheme(policy);
  }
}

void UndoPowerPolicy() { TakeBack({state::kPowerError, state::kPowerScheduleApplied}); }

void RestorePowerSettings() {
  const win32::LockGuard guard(PowerLock());
  TakeBack(
      {state::kPowerPolicy, state::kPowerSource, state::kPowerLocal, state::kPowerError, state::kPowerScheduleApplied});
}

}  // namespace kiosk::power
