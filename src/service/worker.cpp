#include "service/worker.h"

#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/kiosk_profile.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "branding/branding_cache.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "log/log.h"
#include "network/network.h"
#include "portal/check_in.h"
#include "portal/revocation.h"
#include "power/power_scheme.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"
#include "win32/worker_wake.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kiosk::service {
namespace {

constexpr DWORD kInterval = 30'000;
constexpr DWORD kLongestBackOff = 600'000;
constexpr std::uint64_t kProvisioningInterval = 600'000;

class Worker {
 public:
  void Run() {
    // A wake that was set before the first pass is answered by that pass.
    if (win32::WaitOrStop(win32::WorkerWake(), 0) == win32::WaitResult::kStop) {
      return;
    }
    while (win32::WaitOrStop(win32::WorkerWake(), Pass()) != win32::WaitResult::kStop) {
    }
  }

 private:
  // One pass; returns how long to wait before the next.
  DWORD Pass() {
    account::FinishPendingRemoval();
    const bool networkSettled = network::SettleChanges();
    text::Secret token;
    const enrolment::TokenRead read = enrolment::ReadDeviceToken(token);
    if (read != enrolment::TokenRead::kUnreadable) {
      tokenWait_ = kInterval;
    }
    if (token.Empty()) {
      backOff_ = kInterval;
      if (!networkSettled || state::FlagIsOn(state::kTeardownPending)) {
        return kInterval;
      }
      // What could not be read now may be read later: that ends no enrolment.
      return read == enrolment::TokenRead::kUnreadable ? Longer(tokenWait_) : account::StaleProfilesWait();
    }
    const portal::CheckInResult result = portal::CheckIn(token.Get());
    // Somebody else may have ended the enrolment, or begun another, while the answer was on its way: that one counts.
    if (portal::HandleDeviceStatus(result, token.Get()) || result.error == portal::kNoLongerEnrolled ||
        !enrolment::StillEnrolled(token.Get())) {
      return kInterval;
    }
    if (!result.error.empty()) {
      // A call that the stop cut short says nothing about the portal.
      const DWORD wait = win32::StopRequested() ? kInterval : Unusable(result.error);
      if (networkSettled) {
        return wait;
      }
      // A change of the network may be why nothing comes: proving it or putting it back is not to wait that long.
      backOff_ = kInterval;
      return kInterval;
    }
    if (failing_) {
      log::Log(log::kNotice, log::kKiosk, "check-in: AuthSystem reachable again");
      failing_ = false;
    }
    // One from before a restart of the service is over as well.
    if (portal::IsCheckInError(RecordedError())) {
      state::RecordLastError({});
    }
    KeepProvisioned(token.Get());
    branding::ApplyBranding(result.branding, result.tenantId, token.Get());
    if (enrolment::StillEnrolled(token.Get())) {
      power::ApplyEffectivePowerPolicy();
    }
    backOff_ = kInterval;
    return kInterval;
  }

  void KeepProvisioned(const std::string& token) {
    account::TrimPrivilegedGroups();
    if (account::IsKioskProvisioned()) {
      account::ApplyKioskPolicies();
      account::KeepAutoLogon();
    } else if (win32::TickCount() >= nextProvisioning_ && !account::ProvisionIfNeeded(token).empty()) {
      nextProvisioning_ = win32::TickCount() + kProvisioningInterval;
    }
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
    return Longer(backOff_);
  }

  // The wait as it is; the next one is twice as long, up to ten minutes.
  static DWORD Longer(DWORD& wait) { return std::exchange(wait, std::min(wait * 2, kLongestBackOff)); }

  static std::string RecordedError() { return win32::ToNarrow(state::ReadStateString(state::kLastError)); }

  bool failing_ = false;
  DWORD backOff_ = kInterval;           // the wait after the next failed check-in
  DWORD tokenWait_ = kInterval;         // and after the next token that cannot be read
  std::uint64_t nextProvisioning_ = 0;  // as a tick count; not tried again before
};

}  // namespace

void RunWorker() { Worker().Run(); }

}  // namespace kiosk::service
