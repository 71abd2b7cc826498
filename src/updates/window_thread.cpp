#include "updates/window_thread.h"

#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "updates/presence.h"
#include "updates/report.h"
#include "updates/restart_policy.h"
#include "updates/stored_policy.h"
#include "updates/update_run.h"
#include "updates/window_key.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::updates {
namespace {

constexpr DWORD kEvery = 60'000;
constexpr std::uint64_t kTryAgain = 900'000;

std::string KeyNow(const UpdatesPolicy& policy) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  return WindowKey(policy, {now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute});
}

bool InForce(UpdatesPolicy& policy) { return enrolment::IsEnrolled() && LoadUpdatesPolicy(policy) && policy.automatic; }

// Whether that window is still open, by the policy of this moment.
bool IsOpen(const std::string& key) {
  UpdatesPolicy policy;
  return InForce(policy) && KeyNow(policy) == key;
}

class Window {
 public:
  void Evaluate() {
    UpdatesPolicy policy;
    if (!InForce(policy)) {
      RestoreWuRestartPolicy();
      doneKey_.clear();
      return;
    }
    ApplyWuRestartPolicy(policy);
    const std::string key = KeyNow(policy);
    if (key.empty() || win32::TickCount() < nextTry_) {
      return;
    }
    const bool done = key == doneKey_ || key == win32::ToNarrow(state::ReadStateString(state::kOsUpdatesWindowDone));
    if ((done && restartKey_ != key) || MustWait(key, done)) {
      return;
    }
    if (done || RunOnce(key)) {
      // The run may have taken hours: the window, and who is at the terminal, are looked at anew.
      AskForRestart(done || (IsOpen(key) && DeferralReason().empty()));
    }
  }

 private:
  bool MustWait(const std::string& key, bool done) {
    const std::string reason = DeferralReason();
    if (reason.empty()) {
      return false;
    }
    if (waitingKey_ != key) {
      log::Log(log::kNotice, log::kKiosk, "os updates: waiting, %s; trying again every 15 min in this window",
               reason.c_str());
      waitingKey_ = key;
    }
    if (!done) {
      WriteUpdatesReport(enrolment::ReadDeviceToken().Get(), "deferred", nullptr);
    }
    TryLater();
    return true;
  }

  // True when a restart is owed for this window.
  bool RunOnce(const std::string& key) {
    const text::Secret token = enrolment::ReadDeviceToken();
    RunResult result;
    {
      const std::optional<RunClaim> claim = RunClaim::Take();
      if (!claim) {
        TryLater();
        return false;
      }
      log::Log(log::kNotice, log::kKiosk, "os updates: the %s window is open", key.c_str());
      result = RunUpdates(true, [&key] { return IsOpen(key); });
    }
    if (result.code == RunCode::kStopped) {
      return false;
    }
    RecordRun(token.Get(), result);
    MarkWindowDone(token.Get(), key);
    doneKey_ = key;
    if (!result.restartRequired.value_or(false)) {
      return false;
    }
    restartKey_ = key;
    return true;
  }

  // Never during a run that the terminal began: the claim is held until Windows has been asked.
  void AskForRestart(bool now) {
    const std::optional<RunClaim> claim = now ? RunClaim::Take() : std::nullopt;
    if (claim && RequestRestart()) {
      restartKey_.clear();
    } else {
      TryLater();
    }
  }

  void TryLater() { nextTry_ = win32::TickCount() + kTryAgain; }

  std::uint64_t nextTry_ = 0;  // tick count
  std::string restartKey_;     // the window in which a restart is owed
  std::string waitingKey_;     // the window for which waiting was logged
  std::string doneKey_;        // the window whose run was done, also when that could not be stored
};

}  // namespace

void UpdateWindowThread() {
  Window window;
  while (win32::WaitOrStop(nullptr, kEvery) != win32::WaitResult::kStop) {
    window.Evaluate();
  }
}

}  // namespace kiosk::updates
