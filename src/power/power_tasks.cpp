#include "power/power_tasks.h"

#include "log/log.h"
#include "power/scheme_values.h"
#include "power/task_scheduler.h"
#include "state/kiosk_state.h"
#include "win32/program_path.h"
#include "win32/wide_text.h"

#include <powrprof.h>

#include <cstddef>

namespace kiosk::power {
namespace {

constexpr PowerTask kSleepTask{L"Norvane Kiosk Sleep", L"Puts this kiosk terminal to sleep on its power schedule.",
                               L"--sleep-now", false};
constexpr PowerTask kWakeTask{L"Norvane Kiosk Wake", L"Wakes this kiosk terminal on its power schedule.", L"--wake-now",
                              true};

constexpr char kWakeUnavailable[] = "wake_unavailable";

// What the two tasks were registered for. The program's path is a part of it: a program that was moved registers them
// anew.
std::wstring Signature(const PowerSchedule& schedule) {
  return win32::ToWide(ClockTimeText(schedule.sleepAt) + "|" + ClockTimeText(schedule.wakeAt) + "|" +
                       std::to_string(schedule.days) + "|") +
         win32::StartablePath();
}

// Older headers call the byte of "always on, always connected" spare2[2].
template <typename Capabilities>
bool AlwaysConnected(const Capabilities& capabilities) {
  if constexpr (requires { capabilities.AoAc; }) {
    return capabilities.AoAc != FALSE;
  } else {
    static_assert(offsetof(Capabilities, spare2) == 18);
    return capabilities.spare2[2] != FALSE;
  }
}

// A computer that does not tell may well have wake timers.
bool ReportsWakeSupport() {
  SYSTEM_POWER_CAPABILITIES capabilities{};
  return GetPwrCapabilities(&capabilities) == FALSE || AlwaysConnected(capabilities) ||
         capabilities.RtcWake != PowerSystemUnspecified;
}

bool RemoveTasks(const SchedulerConnection& scheduler) {
  const bool sleep = RemovePowerTask(scheduler, kSleepTask);
  return RemovePowerTask(scheduler, kWakeTask) && sleep;
}

bool ConnectAndRemoveTasks() {
  SchedulerConnection scheduler;
  return ConnectTaskScheduler(scheduler) && RemoveTasks(scheduler);
}

// True when the wake task is registered, now or before.
bool RegisterWhereNeeded(const SchedulerConnection& scheduler, const PowerSchedule& schedule) {
  const std::wstring signature = Signature(schedule);
  if (state::ReadStateString(state::kPowerScheduleApplied) == signature && TaskExists(scheduler, kSleepTask) &&
      TaskExists(scheduler, kWakeTask)) {
    return true;
  }
  // Deleted before the first task changes: if this is cut short, the next application begins anew.
  if (!state::DeleteStateValue(state::kPowerScheduleApplied)) {
    log::Log(log::kError, log::kKiosk, "power: cannot note that the tasks are to be registered; they stay as they are");
    return false;
  }
  const bool sleeps = RegisterPowerTask(scheduler, kSleepTask, schedule.sleepAt, schedule.days);
  const bool wakes = RegisterPowerTask(scheduler, kWakeTask, schedule.wakeAt, schedule.days);
  if (sleeps && wakes) {
    state::WriteStateString(state::kPowerScheduleApplied, signature);
  }
  return wakes;
}

}  // namespace

std::string ApplyPowerSchedule(const GUID& scheme, const PowerSchedule& schedule, bool& changed) {
  SchedulerConnection scheduler;
  if (!ConnectTaskScheduler(scheduler)) {
    return schedule.enabled ? kWakeUnavailable : "";
  }
  if (!schedule.enabled) {
    if (!state::ReadStateString(state::kPowerScheduleApplied).empty() || TaskExists(scheduler, kSleepTask) ||
        TaskExists(scheduler, kWakeTask)) {
      RemoveTasks(scheduler);
      state::DeleteStateValue(state::kPowerScheduleApplied);
    }
    return {};
  }
  bool wakes = ReportsWakeSupport();
  if (!wakes) {
    log::Log(log::kWarn, log::kKiosk, "power: this computer reports no wake timer support");
  }
  wakes = SetPowerValue(scheme, SchemeSetting::kWakeTimers, 1, changed) && wakes;
  wakes = RegisterWhereNeeded(scheduler, schedule) && wakes;
  return wakes ? "" : kWakeUnavailable;
}

void RemovePowerTasks() {
  if (!ConnectAndRemoveTasks()) {
    ConnectAndRemoveTasks();
  }
}

}  // namespace kiosk::power
