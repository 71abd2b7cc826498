#include "account/kiosk_restart.h"

#include "command/reply.h"
#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "win32/clock.h"
#include "win32/lock.h"
#include "win32/privilege.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

namespace kiosk::account {
namespace {

constexpr int kIdleDelay = 300;              // in seconds
constexpr std::uint64_t kLongestWait = 250;  // a deadline that was moved or cancelled is seen after it
// Windows may refuse for a moment, while somebody is just signing in for instance.
constexpr int kAttempts = 3;
constexpr std::uint64_t kNextAttempt = 5'000;
constexpr DWORD kReason = SHTDN_REASON_FLAG_PLANNED | SHTDN_REASON_MAJOR_OPERATINGSYSTEM | SHTDN_REASON_MINOR_RECONFIG;
constexpr wchar_t kMessage[] = L"Restarting to start kiosk mode.";

// Connection threads, the start, the control handler and the restart thread come here. Never held across the shutdown
// call or a wait.
win32::Lock restartLock{win32::LockRank::kLeaf};
std::uint64_t deadline GUARDED_BY(restartLock) = 0;        // as a tick count; 0: no restart is pending
const char* idleReason GUARDED_BY(restartLock) = nullptr;  // of one that comes only if nobody is signed in; else null
IfSomebodySignsIn idleThen GUARDED_BY(restartLock) = IfSomebodySignsIn::kCallOff;
bool putOff GUARDED_BY(restartLock) = false;  // the idle one has waited, and the log says so
bool threadRuns GUARDED_BY(restartLock) = false;
bool beingAsked GUARDED_BY(restartLock) = false;  // a thread is in the call that restarts Windows
int attempts GUARDED_BY(restartLock) = 0;         // how often Windows was not ready for the pending restart

// The deadline; once there is none, or at a stop, the thread counts as gone, so that whoever sets one starts another.
std::uint64_t DeadlineOfThread(bool stop) noexcept {
  const win32::LockGuard guard(restartLock);
  threadRuns = deadline != 0 && !stop;
  return threadRuns ? deadline : 0;
}

// Nobody is thrown out by an idle one: who signed in before the service was told of sessions, or in this moment, counts
// as well.
void RestartWhenDue() {
  win32::LockGuard guard(restartLock);
  const char* const idle = idleReason;
  guard.Unlock();
  if (idle != nullptr && !enrolment::NobodyIsSignedIn()) {
    HoldIdleRestart(enrolment::KioskIsSignedIn() == true);
  } else {
    RestartIfPending(idle != nullptr ? idle : "enrolled");
  }
}

void RunRestartThread() noexcept {
  bool stop = false;
  while (const std::uint64_t due = DeadlineOfThread(stop)) {
    const std::uint64_t now = win32::TickCount();
    if (now >= due) {
      RestartWhenDue();
    }
    const auto wait = static_cast<DWORD>(now < due ? std::min(due - now, kLongestWait) : kLongestWait);
    stop = win32::WaitOrStop(nullptr, wait) == win32::WaitResult::kStop;
  }
}

// Takes the pending restart for the calling thread; false when there is none, or another thread asks for it just now.
bool TakeRestart() {
  const win32::LockGuard guard(restartLock);
  return deadline != 0 && !std::exchange(beingAsked, true);
}

// After Windows was asked. True when the restart stays pending, for another try by the restart thread, which lives on
// as long as there is a deadline. One that was cancelled meanwhile does not.
bool StaysPending(DWORD error) {
  const win32::LockGuard guard(restartLock);
  beingAsked = false;
  const bool again = error == ERROR_NOT_READY && deadline != 0 && ++attempts < kAttempts;
  deadline = again ? win32::TickCount() + kNextAttempt : 0;
  attempts = again ? attempts : 0;
  return again;
}

std::uint64_t In(int seconds) { return win32::TickCount() + static_cast<std::uint64_t>(seconds) * 1000; }

void SetDeadline(int seconds) REQUIRES(restartLock) {
  deadline = In(seconds);
  attempts = 0;
  if (threadRuns) {
    return;
  }
  threadRuns = true;
  if (!win32::StartThread(RunRestartThread, win32::kSmallStack)) {
    log::Log(log::kError, log::kKiosk, "cannot start the restart thread (%lu)", GetLastError());
    log::EndProcess(1);
  }
}

}  // namespace

void ScheduleKioskRestart() {
  const win32::LockGuard guard(restartLock);
  idleReason = nullptr;
  log::Log(log::kNotice, log::kKiosk, "enrolled: restarting into kiosk mode in %d s", kRestartDelaySeconds);
  SetDeadline(kRestartDelaySeconds);
}

void ScheduleIdleRestart(const char* why, IfSomebodySignsIn then) {
  const win32::LockGuard guard(restartLock);
  if (deadline != 0) {
    return;
  }
  idleReason = why;
  idleThen = then;
  putOff = false;
  log::Log(log::kNotice, log::kKiosk, "%s: restarting into kiosk mode in %d s", why, kIdleDelay);
  SetDeadline(kIdleDelay);
}

void HoldIdleRestart(bool kiosk) noexcept {
  const win32::LockGuard guard(restartLock);
  if (deadline == 0 || idleReason == nullptr) {
    return;
  }
  if (kiosk || idleThen == IfSomebodySignsIn::kCallOff) {
    deadline = 0;
    log::Log(log::kNotice, log::kKiosk, "%s: somebody signed in, no restart", idleReason);
    return;
  }
  deadline = In(kIdleDelay);
  if (!std::exchange(putOff, true)) {
    log::Log(log::kNotice, log::kKiosk, "%s: no restart while somebody is signed in", idleReason);
  }
}

bool KioskRestartPending() noexcept {
  const win32::LockGuard guard(restartLock);
  return deadline != 0;
}

void CancelKioskRestart() noexcept {
  const win32::LockGuard guard(restartLock);
  deadline = 0;
}

void RestartIfPending(const char* reason) {
  if (!TakeRestart()) {
    return;
  }
  log::Log(log::kNotice, log::kKiosk, "restarting into kiosk mode (%s)", reason);
  win32::EnablePrivilege(SE_SHUTDOWN_NAME);
  std::wstring message = kMessage;
  const BOOL accepted = InitiateSystemShutdownExW(nullptr, message.data(), 0, TRUE, TRUE, kReason);
  const DWORD error = accepted != 0 ? ERROR_SUCCESS : GetLastError();
  if (StaysPending(error)) {
    log::Log(log::kWarn, log::kKiosk, "Windows is not ready to restart; trying again in %llu s", kNextAttempt / 1000);
  } else if (error != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "the restart into kiosk mode could not be started (%lu)", error);
  }
}

json::Value RestartNow(const command::Request& request) {
  if (!KioskRestartPending()) {
    return command::ErrorReply("not_pending");
  }
  request.afterReply = [] { RestartIfPending("restart.now"); };
  return command::OkReply();
}

}  // namespace kiosk::account
