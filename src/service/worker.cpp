#include "service/worker.h"

#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/kiosk_profile.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "branding/branding_cache.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "log/event_log.h"
#include "log/log.h"
#include "network/network.h"
#include "portal/check_in.h"
#include "portal/revocation.h"
#include "power/power_scheme.h"
#include "proxy/proxy.h"
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
constexpr std::uint64_t kToldAfter = 3'600'000;

// The day before the version's, which may be a day ahead of UTC, as a FILETIME value.
std::uint64_t MadeAt() {
  constexpr WORD kVersion[] = {NORVANE_VERSION_NUMBERS};
  SYSTEMTIME day{};
  day.wYear = kVersion[0];
  day.wMonth = kVersion[1];
  day.wDay = kVersion[2];
  FILETIME time{};
  SystemTimeToFileTime(&day, &time);
  return win32::FileTimeValue(time) - std::uint64_t{24} * 3600 * win32::kFileTimeSecond;
}

void TellOfTheComputer() {
  // As after the end of the battery that keeps the time: no certificate is valid yet then.
  if (win32::FileTimeNow() < MadeAt()) {
    log::TellTrouble(log::kClockWrong, ENTRY_CLOCK_WRONG);
  } else {
    log::TroubleIsOver(log::kClockWrong);
  }
  if (const log::UnsecuredFolder problem = log::LogTreeProblem(); problem.path != nullptr) {
    log::TellTrouble(log::kLogFolderUnusable, ENTRY_LOG_FOLDER_UNUSABLE,
                     {win32::ToNarrow(problem.path), std::to_string(problem.error)});
  } else {
    log::TroubleIsOver(log::kLogFolderUnusable);
  }
}

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
    TellOfTheComputer();
    account::FinishPendingRemoval();
    const bool networkSettled = network::SettleChanges();
    text::Secret token;
    const enrolment::TokenRead read = enrolment::ReadDeviceToken(token);
    if (read != enrolment::TokenRead::kUnreadable) {
      tokenWait_ = kInterval;
    }
    if (token.Empty()) {
      backOff_ = kInterval;
      return Unpaired(read == enrolment::TokenRead::kUnreadable, networkSettled);
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
    if (log::TroubleIsOver(log::kPortalAway)) {
      log::WriteEvent(ENTRY_PORTAL_BACK);
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

  // The wait of a pass without a token. What could not be read now may be read later: that ends no enrolment.
  DWORD Unpaired(bool unreadable, bool networkSettled) {
    failing_ = failing_ && unreadable;
    const bool proxySettled = unreadable || proxy::RestoreProxy();
    state::RawValue pending;
    if (!networkSettled || state::ReadState(state::kTeardownPending, pending) != ERROR_FILE_NOT_FOUND) {
      return kInterval;
    }
    const DWORD wait = unreadable ? Longer(tokenWait_) : account::StaleProfilesWait();
    return proxySettled ? wait : std::min(wait, kLongestBackOff);
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
      failingSince_ = win32::AwakeMilliseconds();
      // What another area recorded matters more to the person at the terminal.
      const std::string recorded = RecordedError();
      if (recorded.empty() || portal::IsCheckInError(recorded)) {
        state::RecordLastError(error);
      }
    }
    // While it sleeps a computer misses nobody.
    if (win32::AwakeMilliseconds() - failingSince_ >= kToldAfter) {
      log::TellTrouble(log::kPortalAway, ENTRY_PORTAL_AWAY, {error});
    }
    return Longer(backOff_);
  }

  // The wait as it is; the next one is twice as long, up to ten minutes.
  static DWORD Longer(DWORD& wait) { return std::exchange(wait, std::min(wait * 2, kLongestBackOff)); }

  static std::string RecordedError() { return win32::ToNarrow(state::ReadStateString(state::kLastError)); }

  bool failing_ = false;
  std::uint64_t failingSince_ = 0;      // as AwakeMilliseconds
  DWORD backOff_ = kInterval;           // the wait after the next failed check-in
  DWORD tokenWait_ = kInterval;         // and after the next token that cannot be read
  std::uint64_t nextProvisioning_ = 0;  // as a tick count; not tried again before
};

}  // namespace

void RunWorker() { Worker().Run(); }

}  // namespace kiosk::service
