#include "account/provisioning.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/auto_logon_owner.h"
#include "account/kiosk_account.h"
#include "account/kiosk_profile.h"
#include "account/kiosk_restart.h"
#include "account/password.h"
#include "account/sign_in_secret.h"
#include "account/user_switching.h"
#include "account/winlogon.h"
#include "enrolment/enrolment.h"
#include "enrolment/kiosk_session.h"
#include "lockdown/kiosk_policies.h"
#include "lockdown/policy_tables.h"
#include "log/event_log.h"
#include "log/log.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <lm.h>
#include <userenv.h>

#include <array>
#include <optional>
#include <utility>

namespace kiosk::account {
namespace {

constexpr wchar_t kFullName[] = L"Norvane";
constexpr DWORD kAccountFlags = UF_SCRIPT | UF_PASSWD_CANT_CHANGE | UF_DONT_EXPIRE_PASSWD;
constexpr wchar_t kUsersGroup[] = L"S-1-5-32-545";
constexpr DWORD kPathLength = 260;

// A kiosk account was made anew while the old one was signed in, and no set-up has succeeded since: then nobody signs
// the kiosk in before Windows restarts.
bool restartOwed GUARDED_BY(AccountLock()) = false;

// A failed step: its code, null while all is well, and the number that tells more.
struct Outcome {
  const char* code = nullptr;
  DWORD number = 0;
};
constexpr Outcome kWell{};

// The calls take pointers to text that they do not change.
wchar_t* Unchanged(const wchar_t* text) { return const_cast<wchar_t*>(text); }

DWORD SetUserInfo(DWORD level, void* info) {
  return NetUserSetInfo(nullptr, enrolment::kKioskUser, level, static_cast<BYTE*>(info), nullptr);
}

// Whether Windows already signs somebody else in by itself, which is the owner's choice and stays.
bool AutoLogonInUse() {
  if (state::FlagIsOn(state::kOwnsAutoLogon)) {
    return false;
  }
  const std::wstring user = state::ReadString(kWinlogonKey, kDefaultUserName).value_or(L"");
  return AutoLogonIsOn() && !user.empty() && !win32::EqualIgnoringCase(user, enrolment::kKioskUser);
}

// From here on the account is this service's, whatever happens.
bool RecordAccount(const std::wstring& sid) {
  return state::WriteStateString(state::kAccountSid, sid) && state::DeleteStateValue(state::kAccountCreating) &&
         state::FlushStateKey();
}

// An account that cannot be recorded would be a stranger's in the next run.
void TakeAccountBack() {
  const NET_API_STATUS status = NetUserDel(nullptr, enrolment::kKioskUser);
  if (status == NERR_Success || status == NERR_UserNotFound) {
    state::DeleteStateValue(state::kAccountSid);
    state::DeleteStateValue(state::kAccountCreating);
  }
}

Outcome CreateAccount(const Password& password, std::wstring& sid) {
  // Recorded first, so that an account of a run that is cut short is told from anybody else's.
  if (!state::WriteStateQword(state::kAccountCreating, win32::FileTimeNow()) || !state::FlushStateKey()) {
    state::DeleteStateValue(state::kAccountCreating);
    return {"state_write_failed"};
  }
  USER_INFO_1 user{};
  user.usri1_name = Unchanged(enrolment::kKioskUser);
  user.usri1_password = Unchanged(password.Get());
  user.usri1_priv = USER_PRIV_USER;
  user.usri1_flags = kAccountFlags;
  const NET_API_STATUS status = NetUserAdd(nullptr, 1, reinterpret_cast<BYTE*>(&user), nullptr);
  if (status != NERR_Success) {
    state::DeleteStateValue(state::kAccountCreating);
    return {"account_create_failed", status};
  }
  if (LookupKioskAccount(sid) != AccountLookup::kPresent) {
    return {"account_create_failed"};
  }
  if (!RecordAccount(sid)) {
    TakeAccountBack();
    return {"state_write_failed"};
  }
  log::Log(log::kNotice, log::kKiosk, "created %s (%s)", enrolment::kKioskUserText, win32::ToNarrow(sid).c_str());
  return kWell;
}

// The record of an account that is gone also names a profile, which nobody would find without it.
Outcome DropRecordOfVanished(const std::wstring& recorded) REQUIRES(AccountLock()) {
  log::Log(log::kWarn, log::kKiosk, "the recorded kiosk account is gone; creating a new one");
  // Its session bears the name of the kiosk's and would be anybody's from now on; and Windows holds the profile for it.
  if (enrolment::KioskIsSignedIn() != false) {
    enrolment::LogOffKioskSessions(true);
    restartOwed = true;
  }
  const bool remembered = DeleteKioskProfile(recorded) || NoteStaleProfile(recorded);
  return remembered && state::DeleteStateValue(state::kAccountSid) ? kWell : Outcome{"state_write_failed"};
}

Outcome RefreshAccount(const Password& password) {
  USER_INFO_1003 secret{Unchanged(password.Get())};
  if (const DWORD status = SetUserInfo(1003, &secret); status != NERR_Success) {
    return {"account_password_failed", status};
  }
  USER_INFO_1008 flags{kAccountFlags};
  if (const DWORD status = SetUserInfo(1008, &flags); status != NERR_Success) {
    return {"account_flags_failed", status};
  }
  return kWell;
}

// What stands on the computer under the kiosk's name. A same-named account that this service did not make is never
// touched.
struct FoundAccount {
  std::wstring sid;
  std::wstring recorded;
  bool present = false;
};

Outcome FindAccount(FoundAccount& found) {
  state::RawValue recorded;
  const bool known = state::ReadKnownState(state::kAccountSid, recorded);
  const AccountLookup lookup = LookupKioskAccount(found.sid);
  if (lookup == AccountLookup::kFailed || !known) {
    return {"account_lookup_failed"};
  }
  found.recorded = recorded.Text().value_or(L"");
  found.present = lookup == AccountLookup::kPresent;
  if (!found.present) {
    return kWell;
  }
  if (!found.recorded.empty() && win32::EqualIgnoringCase(found.recorded, found.sid)) {
    // Left of a run that ended right after it had recorded the account.
    if (state::ReadState(state::kAccountCreating)) {
      state::DeleteStateValue(state::kAccountCreating);
    }
    return kWell;
  }
  const std::optional<bool> ours = found.recorded.empty() ? CreationWasCutShort() : false;
  if (ours != true) {
    return {ours ? "account_exists" : "account_lookup_failed"};
  }
  return RecordAccount(found.sid) ? kWell : Outcome{"state_write_failed"};
}

Outcome MakeAccount(FoundAccount& found, const Password& password) REQUIRES(AccountLock()) {
  if (found.present) {
    return RefreshAccount(password);
  }
  if (!found.recorded.empty()) {
    if (const Outcome dropped = DropRecordOfVanished(found.recorded); dropped.code != nullptr) {
      return dropped;
    }
  }
  return CreateAccount(password, found.sid);
}

bool JoinUsers(const std::wstring& sidText) {
  const win32::LocalMemory sid = win32::ParseSid(sidText.c_str());
  if (!sid) {
    return false;
  }
  const std::wstring group = WellKnownGroupName(kUsersGroup);
  LOCALGROUP_MEMBERS_INFO_0 member{sid.Get()};
  const DWORD status = group.empty()
                           ? DWORD{NERR_GroupNotFound}
                           : NetLocalGroupAddMembers(nullptr, group.c_str(), 0, reinterpret_cast<BYTE*>(&member), 1);
  if (status == NERR_Success || status == ERROR_MEMBER_IN_ALIAS) {
    return true;
  }
  log::Log(log::kError, log::kKiosk, "cannot add %s to Users (%lu)", enrolment::kKioskUserText, status);
  return false;
}

// A kiosk without the lockdown in its profile would have Windows' own shell. So it does not sign in by itself until
// that is there, even if the power goes in between.
bool SignInLater() {
  const win32::LockGuard guard(AutoLogonLock());
  return SetAutoAdminLogon(false);
}

Outcome SetUpSignIn(const std::wstring& sid, const Password& password) {
  if (!TakeOverAutoLogon()) {
    return {"state_write_failed"};
  }
  // The names before the secret: they tell a restore that the secret is the kiosk's and has to go.
  if (!WriteKioskNames() || (!state::ProfileFolder(sid) && !SignInLater())) {
    return {"winlogon_failed"};
  }
  if (const char* const failure = StoreKioskSecret(password.Get(), password.Size()); failure != nullptr) {
    return {failure};
  }
  // After the secret that takes its place, so that the owner has one of the two at any moment. Both have to go: while
  // the password stands it says that automatic sign-in is somebody else's, and a count ends it after so many.
  for (const wchar_t* const name : {kDefaultPassword, kAutoLogonCount}) {
    const LSTATUS deleted = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, name);
    if (deleted != ERROR_SUCCESS && deleted != ERROR_FILE_NOT_FOUND) {
      return {"winlogon_failed"};
    }
  }
  state::WriteDword(kPasswordLessKey, kPasswordLessVersion, 0);
  state::WriteDword(kSystemPoliciesKey, kFirstLogonAnimation, 0);
  return kWell;
}

// A profile without a usable registry (its making was cut short, or the file was damaged) would be signed in to with a
// temporary one, whose shell is Windows' own. It is made anew, once, unless the kiosk may be using it.
Outcome LockDown(const std::wstring& sid, const std::wstring& client) {
  for (bool again = false;; again = true) {
    std::array<wchar_t, kPathLength> path{};
    const HRESULT created = CreateProfile(sid.c_str(), enrolment::kKioskUser, path.data(), kPathLength);
    if (FAILED(created) && created != HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS)) {
      return {"profile_failed", static_cast<DWORD>(created)};
    }
    const lockdown::PolicyResult result = lockdown::WriteKioskUserPolicies(sid, client, true);
    if (result == lockdown::PolicyResult::kDone) {
      return kWell;
    }
    if (result != lockdown::PolicyResult::kNoHive || again || enrolment::KioskIsSignedIn() != false) {
      return {"hive_failed"};
    }
    log::Log(log::kWarn, log::kKiosk, "the kiosk profile has no usable registry; making it anew");
    if (!SignInLater() || !DeleteKioskProfile(sid)) {
      return {"hive_failed"};
    }
  }
}

// All steps under the locks, in order; the first failure ends them. What is done stays, and the next run does it again.
Outcome RunSteps(const std::wstring& client) REQUIRES(AccountLock()) {
  // Durably: Windows keeps passwords elsewhere than in the registry, so a power cut could bring the old mark back
  // beside a new password, and the terminal would count as set up and could not sign in.
  if (!state::DeleteStateValue(state::kProvisioned) || !state::DeleteStateValue(state::kTeardownPending) ||
      !state::FlushStateKey()) {
    return {"state_write_failed"};
  }
  if (client.empty()) {
    return {"no_client"};
  }
  FoundAccount account;
  if (const Outcome found = FindAccount(account); found.code != nullptr) {
    return found;
  }
  if (AutoLogonInUse()) {
    return {"autologon_in_use"};
  }
  const Password password = GenerateKioskPassword();
  if (password.Empty()) {
    return {"random_failed"};
  }
  if (const Outcome made = MakeAccount(account, password); made.code != nullptr) {
    return made;
  }
  USER_INFO_1011 fullName{Unchanged(kFullName)};
  SetUserInfo(1011, &fullName);
  if (!JoinUsers(account.sid)) {
    return {"group_failed"};
  }
  TrimPrivilegedGroups();
  if (const Outcome set = SetUpSignIn(account.sid, password); set.code != nullptr) {
    return set;
  }
  HideFastUserSwitching();
  if (const Outcome locked = LockDown(account.sid, client); locked.code != nullptr) {
    return locked;
  }
  {
    const win32::LockGuard guard(AutoLogonLock());
    if (!state::FlagIsOn(state::kMaintenance) && !SetAutoAdminLogon(true)) {
      return {"winlogon_failed"};  // nobody else would ever switch it on
    }
  }
  state::RecordLastError({});
  return state::WriteStateDword(state::kProvisioned, 1) ? kWell : Outcome{"state_write_failed"};
}

std::string Provision() REQUIRES(AccountLock()) {
  const std::wstring client = state::ClientInstallFolder();
  const Outcome outcome = RunSteps(client);
  if (outcome.code != nullptr) {
    log::Log(log::kError, log::kKiosk, "provisioning failed: %s (%lu)", outcome.code, outcome.number);
    state::RecordLastError(outcome.code);
    log::TellTrouble(log::kSetUpFails, ENTRY_KIOSK_NOT_SET_UP, {outcome.code, std::to_string(outcome.number)});
    return outcome.code;
  }
  log::Log(log::kNotice, log::kKiosk, "provisioned: %s signs in at startup into %s", enrolment::kKioskUserText,
           win32::ToNarrow(client + lockdown::kShellProgram + lockdown::kShellSwitch).c_str());
  log::TroubleIsOver(log::kSetUpFails);
  log::WriteEvent(ENTRY_KIOSK_SET_UP);
  if (std::exchange(restartOwed, false)) {
    ScheduleIdleRestart("the kiosk account was made anew", IfSomebodySignsIn::kPutOff);
  }
  return {};
}

// Whether this pass has nothing to do: all is set up, or Windows does not tell whether it is. Setting up again would
// take the mark away for the sake of a passing error.
bool IsProvisionedOrUnknown() {
  state::RawValue mark;
  if (!state::ReadKnownState(state::kProvisioned, mark)) {
    return true;
  }
  if (mark.Dword() != DWORD{1}) {
    return false;
  }
  state::RawValue recorded;
  std::wstring sid;
  if (!state::ReadKnownState(state::kAccountSid, recorded) || LookupKioskAccount(sid) == AccountLookup::kFailed) {
    return true;
  }
  return !sid.empty() && win32::EqualIgnoringCase(sid, recorded.Text().value_or(L""));
}

std::string ProvisionUnderLock(const std::string& tokenUsed, bool onlyIfNeeded) {
  const win32::LockGuard guard(AccountLock());
  const CrossProcessGuard others;
  if (!others.MayGoOn()) {
    return "state_write_failed";
  }
  if (!tokenUsed.empty() && !enrolment::StillEnrolled(tokenUsed)) {
    return kEnrolmentOver;
  }
  return onlyIfNeeded && IsProvisionedOrUnknown() ? std::string() : Provision();
}

}  // namespace

std::string ProvisionKioskAccount(const std::string& tokenUsed) { return ProvisionUnderLock(tokenUsed, false); }

std::string ProvisionIfNeeded(const std::string& tokenUsed) { return ProvisionUnderLock(tokenUsed, true); }

void ApplyKioskPolicies() {
  const win32::LockGuard guard(AccountLock());
  std::wstring sid;
  if (!RecordedAccountPresent(sid)) {
    return;
  }
  const std::wstring client = state::ClientInstallFolder();
  if (!client.empty() && state::ProfileFolder(sid)) {
    lockdown::WriteKioskUserPolicies(sid, client, false);
  }
}

}  // namespace kiosk::account
