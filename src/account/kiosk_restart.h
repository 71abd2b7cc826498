// The restart of the computer into kiosk mode, 10 s after an enrolment that set the kiosk account up, or earlier on a
// caller's wish; and in 5 minutes where the kiosk signs in no earlier by itself, if nobody is signed in.
#pragma once

#include "command/request.h"

namespace kiosk::account {

inline constexpr int kRestartDelaySeconds = 10;

// Restarts the computer in 10 s, and sees to it on a thread of its own. Called again meanwhile, it counts the 10 s
// anew. Logged.
void ScheduleKioskRestart();

// The same in 5 minutes, if nobody is signed in then. `why`, a literal, goes into the log: "maintenance was cut short".
// Nothing when a restart is pending.
void ScheduleIdleRestart(const char* why);

// Somebody signed in: the latter does not take place. Any other stays.
void CallOffIdleRestart() noexcept;

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
