#include "account/teardown.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/kiosk_profile.h"
#include "account/kiosk_restart.h"
#include "account/unlock_token.h"
#include "account/user_switching.h"
#include "branding/branding_folder.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "enrolment/kiosk_session.h"
#include "enrolment/pairing_code.h"
#include "log/event_log.h"
#include "log/log.h"
#include "network/network.h"
#include "power/power_scheme.h"
#include "proxy/proxy.h"
#include "state/kiosk_state.h"
#include "state/made_keys.h"
#include "updates/report.h"
#include "updates/restart_policy.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <lm.h>

#include <algorithm>
#include <iterator>
#include <optional>

namespace kiosk::account {
namespace {

constexpr DWORD kStateWait = 10'000;
constexpr DWORD kStatePoll = 1'000;
constexpr int kTries = 3;  // to give everything back, where that meets a value that cannot be read

// Whether there is a kiosk to be removed, and this is no removal that was begun before and told of then.
bool IsNewRemoval() {
  return (state::TokenIsStored() || state::FlagIsOn(state::kProvisioned)) &&
         (!state::FlagIsOn(state::kTeardownPending) || state::FlagIsOn(state::kTeardownSuperseded));
}

// Whether the registry gives all that a removal goes by. A mark or a copy that it does not give now would be taken for
// none: what is the owner's would stay the kiosk's, and be forgotten.
bool StateCanBeRead() {
  return std::all_of(std::begin(state::kStateValues), std::end(state::kStateValues),
                     [](const state::StateValue* value) {
                       state::RawValue raw;
                       const bool known = state::ReadKnownState(*value, raw);
                       SecureZeroMemory(raw.bytes.data(), raw.bytes.size());  // one of them may be a password
                       return known;
                     });
}

// For as long as that may pass.
bool StateCanBeReadSoon() {
  const win32::Deadline deadline(kStateWait);
  while (!StateCanBeRead()) {
    if (deadline.Passed() || win32::WaitOrStop(nullptr, kStatePoll) == win32::WaitResult::kStop) {
      return false;
    }
  }
  return true;
}

void MarkPending() {
  // Left by a pairing that was cut short before it had cleaned up; it would call this teardown off.
  if (state::ReadState(state::kTeardownSuperseded)) {
    state::DeleteStateValue(state::kTeardownSuperseded);
  }
  state::WriteStateDword(state::kTeardownPending, 1);
  state::FlushStateKey();
}

bool DeleteKioskUser() {
  const NET_API_STATUS status = NetUserDel(nullptr, enrolment::kKioskUser);
  if (status != NERR_Success && status != NERR_UserNotFound) {
    log::Log(log::kError, log::kKiosk, "cannot delete %s (%lu)", enrolment::kKioskUserText, status);
    return false;
  }
  log::Log(log::kNotice, log::kKiosk, "deleted %s", enrolment::kKioskUserText);
  return true;
}

// Signs out and deletes the local user of that SID, and its profile even where the user is gone or another now bears
// the name. Somebody may have deleted the user while it was signed in: its session still bears the name, and as long
// as it lasts Windows holds the profile. False when something is left; logged.
bool DeleteKioskAccount(const std::wstring& recordedSid) {
  std::wstring sid;
  const AccountLookup found = LookupKioskAccount(sid);
  if (found == AccountLookup::kFailed) {
    return false;
  }
  const bool ours = found == AccountLookup::kPresent && win32::EqualIgnoringCase(sid, recordedSid);
  if (found == AccountLookup::kPresent && !ours) {
    log::Log(log::kWarn, log::kKiosk, "the local %s is not the recorded account %s; left alone",
             enrolment::kKioskUserText, win32::ToNarrow(recordedSid).c_str());
  } else if (!enrolment::LogOffKioskSessions(true) && ours) {
    return false;
  }
  const bool profileGone = DeleteKioskProfile(recordedSid);
  return ours ? DeleteKioskUser() && profileGone : profileGone;
}

// Removes the account on record; failing that, one that a provisioning made and could not record any more. True also
// when there is none; false when nobody can tell.
bool RemoveAccount() REQUIRES(AccountLock()) {
  state::RawValue recorded;
  state::RawValue creating;
  if (!state::ReadKnownState(state::kAccountSid, recorded) ||
      !state::ReadKnownState(state::kAccountCreating, creating)) {
    return false;
  }
  std::wstring sid = recorded.Text().value_or(L"");
  if (sid.empty() && creating.Qword()) {
    const AccountLookup found = LookupKioskAccount(sid);
    if (found == AccountLookup::kFailed) {
      return false;
    }
    const std::optional<bool> ours = found == AccountLookup::kPresent ? CreationWasCutShort() : true;
    if (ours != true) {
      return ours.has_value();  // somebody else's; or else nobody can tell yet
    }
  }
  return sid.empty() || DeleteKioskAccount(sid);
}

// The token goes last: with it the mark means that all of this is to be done again. False when it is still there.
bool EraseEnrolment() {
  {
    const win32::LockGuard guard(AutoLogonLock());
    state::DeleteStateValues({state::kProvisioned, state::kMaintenance, state::kMaintenanceAt});
  }
  state::DeleteStateValues({state::kLastError, state::kUnknownSince, state::kSignIn, state::kTerminalName});
  log::TroubleIsOver(log::kTroublesOfEnrolment);
  const bool erased = state::DeleteStateValue(state::kDeviceToken);
  state::FlushStateKey();
  return erased;
}

void ForgetRemovedAccount() {
  state::DeleteStateValues(
      {state::kAccountSid, state::kAccountCreating, state::kTeardownPending, state::kTeardownSuperseded});
  state::FlushStateKey();
}

// A pairing over a pending removal ended between storing its token and taking the mark away. The new enrolment counts.
bool CalledOffByNewerToken() {
  if (!state::FlagIsOn(state::kTeardownSuperseded)) {
    return false;
  }
  if (state::DeleteStateValue(state::kTeardownPending)) {
    state::DeleteStateValue(state::kTeardownSuperseded);
  }
  state::FlushStateKey();
  return true;
}

void DeleteStateKey() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, state::kStateKey);
  RegDeleteKeyExW(HKEY_LOCAL_MACHINE, state::kStateKey, KEY_WOW64_64KEY, 0);
}

struct GivenBack {
  bool settings;  // of network and proxy; otherwise the records that their next try needs are still there
  bool account;
};

// Each step may be taken again. What one cannot read it takes for none, and keeps what it still needs.
GivenBack GiveBack(bool deleteStateKey) REQUIRES(AccountLock()) {
  const state::ReadWatch reads;
  RestoreAutoLogon();
  RestoreFastUserSwitching();
  if (reads.AllKnown()) {
    state::DeleteMadeKeys(state::kMadeSignInKeys);  // the policy above is in one of them
  }
  branding::RemoveBranding();
  power::RestorePowerSettings();
  updates::RestoreWuRestartPolicy();
  updates::ForgetUpdates();
  const bool proxyIsBack = proxy::RestoreProxy();
  const bool settings = network::EndChanges() && proxyIsBack;
  const bool account = RemoveAccount();
  branding::RemoveBranding();  // what the kiosk's programs had open until they were signed out
  DeleteStaleProfiles(deleteStateKey && account && settings);
  return {settings, account};
}

// Empty when there was always something that could not be read.
std::optional<GivenBack> GiveBackKnowingAll(bool deleteStateKey) REQUIRES(AccountLock()) {
  for (int tries = 1;; ++tries) {
    const state::ReadWatch reads;
    const GivenBack back = GiveBack(deleteStateKey);
    if (reads.AllKnown()) {
      return back;
    }
    if (tries == kTries || win32::WaitOrStop(nullptr, kStatePoll) == win32::WaitResult::kStop) {
      return std::nullopt;
    }
  }
}

// The caller has passed the guard between processes.
void TearDown(bool deleteStateKey, const char* reason) REQUIRES(AccountLock()) {
  const bool isNew = IsNewRemoval();
  MarkPending();
  log::Log(log::kWarn, log::kKiosk, "removing kiosk mode: %s", reason);
  CancelKioskRestart();
  DropUnlock();
  { const win32::LockGuard answersThatAreBeingWritten(enrolment::ReplyLock()); }
  if (isNew) {
    log::WriteEvent(ENTRY_KIOSK_REMOVED, {reason});
  }
  const std::optional<GivenBack> back = StateCanBeReadSoon() ? GiveBackKnowingAll(deleteStateKey) : std::nullopt;
  if (!back) {
    log::Log(log::kError, log::kKiosk, "cannot read all of the state key; removing kiosk mode once that is possible");
    return;
  }
  if (!EraseEnrolment()) {
    log::Log(log::kError, log::kKiosk,
             "cannot delete the device token; removing kiosk mode again at the next check-in");
    return;
  }
  if (!back->account) {
    MarkPending();
    log::Log(log::kWarn, log::kKiosk,
             "the kiosk account could not be removed yet; retrying at every start and check-in");
    return;
  }
  ForgetRemovedAccount();
  if (deleteStateKey && back->settings) {
    DeleteStateKey();
  }
}

void RetryStaleProfiles() {
  if (!StaleProfilesAreDue()) {
    return;
  }
  const win32::LockGuard guard(AccountLock());
  const CrossProcessGuard others;
  if (others.MayGoOn()) {
    DeleteStaleProfiles(false);
  }
}

void ForgetPairing() {
  const win32::LockGuard guard(enrolment::PairingLock());
  enrolment::SetPendingPairingCode({});
}

}  // namespace

void RemoveKioskMode(bool deleteStateKey, const char* reason, const std::string* onlyIfToken) {
  {
    const win32::LockGuard guard(AccountLock());
    const CrossProcessGuard others;
    if (!others.MayGoOn() || (onlyIfToken != nullptr && enrolment::ReadDeviceToken().Get() != *onlyIfToken)) {
      return;
    }
    TearDown(deleteStateKey, reason);
  }
  ForgetPairing();
}

void FinishPendingRemoval() {
  RetryStaleProfiles();
  if (!state::ReadState(state::kTeardownPending)) {
    return;
  }
  bool interrupted = false;
  {
    const win32::LockGuard guard(AccountLock());
    const CrossProcessGuard others;
    if (!others.MayGoOn() || !state::FlagIsOn(state::kTeardownPending) || !StateCanBeRead()) {
      return;
    }
    const state::ReadWatch reads;
    interrupted = state::TokenIsStored();
    if ((interrupted && CalledOffByNewerToken()) || !reads.AllKnown()) {
      return;
    }
    if (interrupted) {
      TearDown(false, "an earlier removal was interrupted");
    } else if (RemoveAccount()) {
      branding::RemoveBranding();
      ForgetRemovedAccount();
      log::Log(log::kNotice, log::kKiosk, "the pending removal of %s finished", enrolment::kKioskUserText);
    }
  }
  if (interrupted) {
    ForgetPairing();
  }
}

}  // namespace kiosk::account
