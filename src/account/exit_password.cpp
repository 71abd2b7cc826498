#include "account/exit_password.h"

#include "account/kiosk_account.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "log/log.h"
#include "portal/check_in.h"
#include "portal/revocation.h"
#include "state/kiosk_state.h"
#include "text/secret.h"
#include "win32/clock.h"
#include "win32/lock.h"

#include <cstdint>
#include <string_view>

namespace kiosk::account {
namespace {

constexpr DWORD kMostFailures = 5;
constexpr std::uint64_t kLockoutSeconds = 300;
constexpr std::uint64_t kLockout = kLockoutSeconds * win32::kFileTimeSecond;

// Connection threads come here.
win32::Lock checkLock{win32::LockRank::kLeaf};
// It guards the two values of the state key as well.
bool checking GUARDED_BY(checkLock) = false;

void StartLockout() REQUIRES(checkLock) {
  // Where the end of the lock cannot be written the count stays, so that the next attempt comes here again.
  if (state::WriteStateQword(state::kMaintenanceLockedUntil, win32::FileTimeNow() + kLockout)) {
    state::WriteStateDword(state::kMaintenanceFailures, 0);
  }
  log::Log(log::kWarn, log::kKiosk, "maintenance: %d attempts without the right password; refusing for %llu s",
           static_cast<int>(kMostFailures), static_cast<unsigned long long>(kLockoutSeconds));
}

bool LockedOut(std::uint64_t until) REQUIRES(checkLock) {
  const std::uint64_t now = win32::FileTimeNow();
  if (now >= until) {
    return false;
  }
  // The clock was set back since: nobody is kept out for longer than a lockout lasts.
  if (until - now > kLockout) {
    state::WriteStateQword(state::kMaintenanceLockedUntil, now + kLockout);
  }
  return true;
}

// One check of a password. It counts before the password is looked at: pulling the plug wins no free attempt.
class Attempt {
 public:
  Attempt() : refusal_(Begin()) {}
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;
  ~Attempt() {
    if (refusal_ == nullptr) {
      const win32::LockGuard guard(checkLock);
      checking = false;
    }
  }

  // Null when the attempt may be made.
  [[nodiscard]] const char* Refusal() const noexcept { return refusal_; }

  static void Succeeded() {
    const win32::LockGuard guard(checkLock);
    state::DeleteStateValue(state::kMaintenanceFailures);
    state::DeleteStateValue(state::kMaintenanceLockedUntil);
  }

  void Failed() const {
    const win32::LockGuard guard(checkLock);
    if (count_ >= kMostFailures) {
      StartLockout();
    }
  }

 private:
  const char* Begin() {
    const win32::LockGuard guard(checkLock);
    state::RawValue counted;
    state::RawValue lockedUntil;
    // A user may see to it that Windows is short of memory: what it does not give or take then is no free attempt.
    if (!state::ReadKnownState(state::kMaintenanceFailures, counted) ||
        !state::ReadKnownState(state::kMaintenanceLockedUntil, lockedUntil)) {
      return "busy";
    }
    if (LockedOut(lockedUntil.Qword().value_or(0))) {
      return "locked";
    }
    if (checking) {
      return "busy";
    }
    const DWORD failures = counted.Dword().value_or(0);
    if (failures >= kMostFailures) {
      StartLockout();
      return "locked";
    }
    count_ = failures + 1;
    // Without a token there is nothing to guess, and maybe no key to count in.
    if (!state::WriteStateDword(state::kMaintenanceFailures, count_) && state::TokenIsStored()) {
      return "busy";
    }
    state::FlushStateKey();  // who has to make room on a full disk must get in: there it counts until Windows restarts
    checking = true;
    return nullptr;
  }

  DWORD count_ = 0;  // this attempt included
  const char* refusal_;
};

// An exit password that is empty is none, and nothing matches it.
bool Matches(const std::string& given, const std::string& exitPassword) noexcept {
  const std::string_view left = text::TrimSpace(given);
  const std::string_view right = text::TrimSpace(exitPassword);
  if (right.empty() || left.size() != right.size()) {
    return false;
  }
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    difference |= static_cast<unsigned>(text::AsciiLower(left[i]) ^ text::AsciiLower(right[i]));
  }
  return difference == 0;
}

}  // namespace

std::string VerifyExitPassword(const std::string& password) {
  const Attempt attempt;
  if (attempt.Refusal() != nullptr) {
    return attempt.Refusal();
  }
  const text::Secret token = enrolment::ReadDeviceToken();
  if (token.Empty()) {
    return "not_enrolled";
  }
  if (!IsKioskProvisioned()) {
    return "not_provisioned";
  }
  const portal::CheckInResult result = portal::CheckIn(token.Get());
  // Somebody else may have torn the terminal down while the portal was asked.
  if (portal::HandleDeviceStatus(result, token.Get()) || !enrolment::StillEnrolled(token.Get())) {
    return "not_enrolled";
  }
  if (!result.error.empty()) {
    return "unreachable";
  }
  if (!Matches(password, result.exitPassword.Get())) {
    attempt.Failed();
    return "wrong_password";
  }
  Attempt::Succeeded();
  return {};
}

}  // namespace kiosk::account
