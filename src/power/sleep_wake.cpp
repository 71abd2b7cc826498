#include "power/sleep_wake.h"

#include "log/log.h"
#include "power/stream_session.h"
#include "win32/privilege.h"
#include "win32/winapi.h"

#include <powrprof.h>

namespace kiosk::power {
namespace {

// Sleep and not hibernation, applications are asked, wake timers stay on.
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
  if (StreamSessionIsLive()) {
    log::Log(log::kWarn, log::kKiosk, "power: scheduled sleep skipped, a stream session is live");
  } else {
    done = Suspend();
  }
  log::StopBanner(log::kKiosk);
  return done ? 0 : 1;
}

int WakeNow() {
  SetThreadExecutionState(ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED);
  return 0;
}

}  // namespace kiosk::power
