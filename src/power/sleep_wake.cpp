#include "power/sleep_wake.h"

#include "log/log.h"
#include "power/power_policy_store.h"
#include "power/power_tasks.h"
#include "power/stream_session.h"
#include "state/kiosk_state.h"
#include "win32/com.h"
#include "win32/privilege.h"
#include "win32/winapi.h"

#include <powrprof.h>

#include <cstdint>
#include <optional>

namespace kiosk::power {
namespace {

constexpr std::uint32_t kLatest = 10 * 60;  // seconds

// How many seconds after the schedule's time to sleep it is, if that is too late to sleep. While the battery saver is
// on Windows holds the tasks of services back, and when it ends, perhaps in the morning in front of people, it runs
// them. The last minutes before that time are not late; without a schedule somebody runs this by hand.
std::optional<std::uint32_t> TooLate() {
  PowerPolicy policy;
  if (!LoadEffectivePowerPolicy(policy) || !policy.schedule.enabled) {
    return std::nullopt;
  }
  constexpr std::uint32_t kDay = kMinutesOfDay * 60;
  SYSTEMTIME now;
  GetLocalTime(&now);
  const std::uint32_t seconds = (std::uint32_t{now.wHour} * 60 + now.wMinute) * 60 + now.wSecond;
  const std::uint32_t late = (seconds + kDay - policy.schedule.sleepAt * 60) % kDay;
  return late > kLatest && late < kDay - kLatest ? std::optional(late) : std::nullopt;
}

// Whether kiosk mode has ended and Task Scheduler did not take its tasks back then: they are taken back now.
bool IsLeftOver() {
  state::RawValue token;
  if (!state::ReadKnownState(state::kDeviceToken, token) || !token.bytes.empty()) {
    return false;
  }
  const win32::ComApartment apartment;
  RemovePowerTasks();
  return true;
}

// Sleeps and does not hibernate; applications are asked first; wake timers stay on.
bool Suspend() {
  win32::EnablePrivilege(SE_SHUTDOWN_NAME);
  log::Log(log::kNotice, log::kKiosk, "power: scheduled sleep");
  if (SetSuspendState(FALSE, FALSE, FALSE) != FALSE) {
    return true;
  }
  log::Log(log::kError, log::kKiosk, "power: SetSuspendState failed (%lu)", GetLastError());
  return false;
}

}  // namespace

int SleepNow() {
  log::StartBanner(log::kKiosk);
  bool done = true;
  if (IsLeftOver()) {
    log::Log(log::kWarn, log::kKiosk, "power: scheduled sleep skipped, this computer is no terminal any more");
  } else if (const auto late = TooLate(); late) {
    log::Log(log::kWarn, log::kKiosk, "power: scheduled sleep skipped, it comes %u min late",
             static_cast<unsigned>(*late / 60));
  } else if (StreamSessionIsLive()) {
    log::Log(log::kWarn, log::kKiosk, "power: scheduled sleep skipped, a stream session is live");
  } else {
    done = Suspend();
  }
  log::StopBanner(log::kKiosk);
  return done ? 0 : 1;
}

int WakeNow() {
  if (!IsLeftOver()) {
    SetThreadExecutionState(ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED);
  }
  return 0;
}

}  // namespace kiosk::power
