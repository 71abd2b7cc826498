#include "power/stay_awake.h"

#include "enrolment/enrolment.h"
#include "log/log.h"
#include "power/power_policy_store.h"
#include "win32/handle.h"
#include "win32/stop.h"

#include <string>
#include <utility>

namespace kiosk::power {
namespace {

// In ms; shorter than the unattended time-out. A wait stands still while the computer sleeps, so after a wake there is
// at most this left of it.
constexpr DWORD kEvery = 60'000;

// A request that is set until its handle is closed. Empty, with the last error, when Windows refuses.
win32::FileHandle RequireSystem() {
  std::wstring reason = L"The power schedule of this kiosk terminal keeps it awake.";
  REASON_CONTEXT context{};
  context.Version = POWER_REQUEST_CONTEXT_VERSION;
  context.Flags = POWER_REQUEST_CONTEXT_SIMPLE_STRING;
  context.Reason.SimpleReasonString = reason.data();
  win32::FileHandle request(PowerCreateRequest(&context));
  if (request && !PowerSetRequest(request.Get(), PowerRequestSystemRequired)) {
    request.Reset();
  }
  return request;
}

bool ScheduleWantsItAwake() {
  PowerPolicy policy;
  if (!enrolment::IsEnrolled() || !LoadEffectivePowerPolicy(policy)) {
    return false;
  }
  SYSTEMTIME now;
  GetLocalTime(&now);
  return WantsAwake(policy, now.wDayOfWeek, std::uint32_t{now.wHour} * 60 + now.wMinute);
}

class AwakeKeeper {
 public:
  void Look() {
    if (!ScheduleWantsItAwake()) {
      if (request_) {
        log::Log(log::kNotice, log::kKiosk, "power: the schedule no longer keeps the computer awake");
      }
      request_.Reset();
      error_ = ERROR_SUCCESS;
      return;
    }
    // A new one each time, since Windows ends requests when somebody puts the computer to sleep. The old one is closed
    // after that, so that there is no moment without one.
    win32::FileHandle request = RequireSystem();
    const DWORD error = request ? ERROR_SUCCESS : GetLastError();
    if (error != ERROR_SUCCESS && error != error_) {
      log::Log(log::kError, log::kKiosk, "power: cannot keep the computer awake (%lu)", error);
    }
    error_ = error;
    if (!request) {
      return;
    }
    if (!request_) {
      log::Log(log::kNotice, log::kKiosk, "power: the schedule keeps the computer awake");
    }
    request_ = std::move(request);
  }

 private:
  win32::FileHandle request_;
  DWORD error_ = ERROR_SUCCESS;  // of the last try, which the log knows
};

}  // namespace

void AwakeThread() {
  AwakeKeeper keeper;
  do {
    keeper.Look();
  } while (win32::WaitOrStop(nullptr, kEvery) != win32::WaitResult::kStop);
}

}  // namespace kiosk::power
