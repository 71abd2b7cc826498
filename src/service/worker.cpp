#include "service/worker.h"

#include "log/log.h"
#include "portal/check_in.h"
#include "portal/device_token.h"
#include "portal/worker_wake.h"
#include "state/kiosk_state.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace kiosk::service {
namespace {

constexpr DWORD kInterval = 30'000;
constexpr DWORD kLongestBackOff = 600'000;

class Worker {
 public:
  void Run() {
    // A wake that was set before the first pass is answered by that pass.
    if (win32::WaitOrStop(portal::WorkerWake(), 0) == win32::WaitResult::kStop) {
      return;
    }
    while (win32::WaitOrStop(portal::WorkerWake(), Pass()) != win32::WaitResult::kStop) {
    }
  }

 private:
  // One pass; returns how long to wait before the next.
  DWORD Pass() {
    const text::Secret token = portal::ReadDeviceToken();
    if (token.Empty()) {
      backOff_ = kInterval;
      return INFINITE;
    }
    const portal::CheckInResult result = portal::CheckIn(token.Get());
    if (!result.error.empty()) {
      // A call that the stop cut short says nothing about the portal.
      return win32::StopRequested() ? kInterval : Unusable(result.error);
    }
    if (failing_) {
      log::Log(log::kNotice, log::kKiosk, "check-in: AuthSystem reachable again");
      failing_ = false;
    }
    // One from before a restart of the service is over as well.
    if (portal::IsCheckInError(RecordedError())) {
      state::RecordLastError({});
    }
    backOff_ = kInterval;
    return kInterval;
  }

  DWORD Unusable(const std::string& error) {
    if (!failing_) {
      log::Log(log::kWarn, log::kKiosk, "check-in: no usable answer from AuthSystem (%s); still enrolled",
               error.c_str());
      failing_ = true;
      // What another area recorded matters more to the person at the terminal.
      const std::string recorded = RecordedError();
      if (recorded.empty() || portal::IsCheckInError(recorded)) {
        state::RecordLastError(error);
      }
    }
    const DWORD wait = backOff_;
    backOff_ = std::min(backOff_ * 2, kLongestBackOff);
    return wait;
  }

  static std::string RecordedError() { return win32::ToNarrow(state::ReadStateString(state::kLastError)); }

  bool failing_ = false;
  DWORD backOff_ = kInterval;  // the wait after the next failed check-in
};

}  // namespace

void RunWorker() { Worker().Run(); }

}  // namespace kiosk::service
