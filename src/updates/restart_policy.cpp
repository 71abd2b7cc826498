#include "updates/restart_policy.h"

#include "enrolment/enrolment.h"
#include "log/log.h"
#include "state/borrowed_settings.h"
#include "state/kiosk_state.h"
#include "state/made_keys.h"
#include "updates/commit.h"
#include "win32/lock.h"
#include "win32/privilege.h"
#include "win32/wide_text.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace kiosk::updates {
namespace {

using state::BorrowedValue;

constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate";
constexpr wchar_t kAutomaticKey[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate\\AU";

constexpr BorrowedValue kNoAutoReboot{kAutomaticKey, L"NoAutoRebootWithLoggedOnUsers", &state::kPriorWuNoAutoReboot};
constexpr BorrowedValue kSetActiveHours{kUpdateKey, L"SetActiveHours", &state::kPriorWuSetActiveHours};
constexpr BorrowedValue kActiveHoursStart{kUpdateKey, L"ActiveHoursStart", &state::kPriorWuActiveHoursStart};
constexpr BorrowedValue kActiveHoursEnd{kUpdateKey, L"ActiveHoursEnd", &state::kPriorWuActiveHoursEnd};
constexpr BorrowedValue kActiveHoursMaxRange{kUpdateKey, L"ActiveHoursMaxRange", &state::kPriorWuActiveHoursMaxRange};
constexpr BorrowedValue kPolicies[] = {kNoAutoReboot, kSetActiveHours, kActiveHoursStart, kActiveHoursEnd,
                                       kActiveHoursMaxRange};
constexpr state::BorrowedSettings kBorrowed{state::kOwnsWuPolicy, kPolicies};

constexpr DWORD kLongestRange = 18;
constexpr DWORD kWarningSeconds = 60;
constexpr DWORD kReason = SHTDN_REASON_FLAG_PLANNED | SHTDN_REASON_MAJOR_OPERATINGSYSTEM | SHTDN_REASON_MINOR_HOTFIX;
constexpr wchar_t kMessage[] = L"Restarting to finish installing updates.";

// Saving, setting and putting back are each done as a whole. Window thread, and whoever tears kiosk mode down.
win32::Lock policyLock{win32::LockRank::kUpdatesPolicy};

bool SetPolicyDword(const BorrowedValue& policy, DWORD value) REQUIRES(policyLock) {
  if (state::ReadDword(policy.key, policy.name) == value) {
    return false;
  }
  if (!state::WriteDword(policy.key, policy.name, value)) {
    log::Log(log::kError, log::kKiosk, "os updates: cannot set %s", win32::ToNarrow(policy.name).c_str());
  }
  return true;
}

void LogNotSaved(const BorrowedValue& policy) {
  log::Log(log::kError, log::kKiosk, "os updates: cannot save %s; it stays as it is",
           win32::ToNarrow(policy.name).c_str());
}

bool TakeOwnership() REQUIRES(policyLock) {
  state::RawValue mark;
  const bool known = state::ReadKnownState(kBorrowed.mark, mark);
  if (mark.Dword() == DWORD{1}) {
    return true;
  }
  // Under a mark that cannot be read the values may be the service's, and must not become the copies.
  if (!known) {
    return false;
  }
  return kBorrowed.Save(LogNotSaved) && state::NoteMissingKeys(state::kMadeWuKeys, {kUpdateKey, kAutomaticKey}) &&
         kBorrowed.Mark();
}

// For whoever has to put the value back by hand: its number, its text, or its bytes.
std::string DescribeCopy(const state::StateValue& prior) {
  state::RawValue copy;
  const LSTATUS status = state::ReadState(prior, copy);
  if (status != ERROR_SUCCESS) {
    return status == ERROR_FILE_NOT_FOUND ? "not set" : "lost (" + std::to_string(status) + ")";
  }
  if (const auto number = copy.Dword()) {
    return std::to_string(*number);
  }
  if (const auto text = copy.Text()) {
    return "\"" + win32::ToNarrow(*text) + "\"";
  }
  std::string bytes = "of type " + std::to_string(copy.type) + ":";
  for (const std::uint8_t byte : copy.bytes) {
    char hex[4];
    static_cast<void>(std::snprintf(hex, sizeof(hex), " %02x", unsigned{byte}));
    bytes += hex;
  }
  return bytes;
}

}  // namespace

void ApplyWuRestartPolicy(const UpdatesPolicy& policy) {
  const win32::LockGuard guard(policyLock);
  // A teardown marks itself before it comes here to put everything back: after that nothing is taken any more.
  if (!enrolment::IsEnrolled() || !TakeOwnership()) {
    return;
  }
  bool changed = SetPolicyDword(kNoAutoReboot, 1);
  const ActiveHours hours = ActiveHoursAround(policy);
  if (hours.set) {
    changed |= SetPolicyDword(kSetActiveHours, 1);
    changed |= SetPolicyDword(kActiveHoursStart, hours.start);
    changed |= SetPolicyDword(kActiveHoursEnd, hours.end);
    changed |= SetPolicyDword(kActiveHoursMaxRange, kLongestRange);
  }
  if (changed) {
    log::Log(log::kNotice, log::kKiosk, "os updates: Windows may not restart on its own; active hours %02u:00-%02u:00",
             hours.start, hours.end);
  }
}

void RestoreWuRestartPolicy() {
  const win32::LockGuard guard(policyLock);
  if (!state::FlagIsOn(kBorrowed.mark)) {
    return;
  }
  const state::ReadWatch reads;
  for (const BorrowedValue& policy : kPolicies) {
    // Twice, since the copy goes with the mark. Nothing waits longer for it: the terminal may be on its way out.
    bool back = state::PutBack(policy);
    if (!back) {
      back = state::PutBack(policy);
    }
    if (!back) {
      log::Log(log::kError, log::kKiosk, "os updates: cannot put %s back; it was %s",
               win32::ToNarrow(policy.name).c_str(), DescribeCopy(*policy.prior).c_str());
    }
  }
  if (!reads.AllKnown()) {
    return;
  }
  state::DeleteMadeKeys(state::kMadeWuKeys);
  if (!kBorrowed.Forget()) {
    return;
  }
  state::FlushStateKey();
  log::Log(log::kNotice, log::kKiosk, "os updates: Windows Update restart settings are back as they were");
}

bool RequestRestart() {
  win32::EnablePrivilege(SE_SHUTDOWN_NAME);
  if (!CommitUpdates()) {
    return false;
  }
  std::wstring message = kMessage;
  // Applications are closed by force: nobody may be there to answer them.
  if (InitiateSystemShutdownExW(nullptr, message.data(), kWarningSeconds, TRUE, TRUE, kReason) == 0) {
    log::Log(log::kError, log::kKiosk, "os updates: cannot restart (%lu)", GetLastError());
    return false;
  }
  log::Log(log::kNotice, log::kKiosk, "os updates: restarting in 60 s to finish installing");
  return true;
}

}  // namespace kiosk::updates
