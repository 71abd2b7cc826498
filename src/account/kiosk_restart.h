// The restart of the computer into kiosk mode: 10 s after an enrolment that set the kiosk account up, or earlier on a
// caller's wish. And the idle one, when nobody is signed in: 5 minutes after a kiosk was put right that does not sign
// in before a restart.
#pragma once

#include "command/request.h"

namespace kiosk::account {

inline constexpr int kRestartDelaySeconds = 10;

// Restarts the computer in 10 s, and sees to it on a thread of its own. Called again meanwhile, it counts the 10 s
// anew. Logged.
void ScheduleKioskRestart();

enum class IfSomebodySignsIn {
  kCallOff,  // the restart does not take place
  kPutOff,   // unless it is the kiosk, which calls it off: its 5 minutes begin anew until nobody is signed in
};

// The idle one. `why`, a literal, goes into the log: "maintenance was cut short". Nothing when a restart is pending.
void ScheduleIdleRestart(const char* why, IfSomebodySignsIn then);

// Somebody signed in, the kiosk or somebody else, which counts for an idle one alone.
void HoldIdleRestart(bool kiosk) noexcept;

// Either of them.
[[nodiscard]] bool KioskRestartPending() noexcept;

void CancelKioskRestart() noexcept;

// Restarts the computer now, with applications forced closed, if a restart is pending; does nothing otherwise.
// A failure is logged and ends it, but for a Windows that is not ready: then it stays pending, and is tried three times
// in all, 5 s apart. `reason` goes into the log.
void RestartIfPending(const char* reason);

// The command "restart.now": brings the pending restart forward to right after the reply; "not_pending" when there is
// none.
json::Value RestartNow(const command::Request& request);

}  // namespace kiosk::account
