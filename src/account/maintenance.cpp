#include "account/maintenance.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/auto_logon_owner.h"
#include "account/exit_password.h"
#include "account/kiosk_account.h"
#include "account/kiosk_restart.h"
#include "account/unlock_token.h"
#include "account/winlogon.h"
#include "command/reply.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "text/secret.h"
#include "win32/clock.h"
#include "win32/lock.h"
#include "win32/thread.h"

#include <exception>
#include <set>
#include <vector>

namespace kiosk::account {
namespace {

// Sessions of people other than the kiosk account that were there during this maintenance. The control handler,
// connection threads and the start come here.
win32::Lock sessionsLock{win32::LockRank::kLeaf};

// Never destroyed: threads may outlive main.
std::set<DWORD>& AdministratorSessions() REQUIRES(sessionsLock) {
  static auto& sessions = *new std::set<DWORD>;
  return sessions;
}

// Empty when the caller may enter.
std::string Admit(const command::Request& request) {
  const std::string& password = json::Member(request.members, "password").text();
  const std::string& unlockToken = json::Member(request.members, "unlockToken").text();
  if (!unlockToken.empty() && CheckUnlockToken(unlockToken, request.session)) {
    if (!state::TokenIsStored()) {
      return "not_enrolled";
    }
    if (!IsKioskProvisioned()) {
      return "not_provisioned";
    }
    log::Log(log::kNotice, log::kKiosk, "maintenance: accepted with the terminal settings unlock");
    return {};
  }
  return unlockToken.empty() || !password.empty() ? VerifyExitPassword(password) : "not_unlocked";
}

void BeginMaintenance() REQUIRES(AccountLock()) {
  {
    // Before the mark is set: from then on the control handler adds to them.
    const win32::LockGuard guard(sessionsLock);
    AdministratorSessions().clear();
  }
  const win32::LockGuard guard(AutoLogonLock());
  state::WriteStateQword(state::kMaintenanceAt, win32::FileTimeNow());
  // Before auto sign-in is switched off: without the mark nobody would ever switch it on again.
  if (!state::WriteStateDword(state::kMaintenance, 1)) {
    log::Log(log::kError, log::kKiosk, "maintenance: cannot be marked; auto sign-in stays on");
    return;
  }
  SetAutoAdminLogon(false);
  log::Log(log::kNotice, log::kKiosk,
           "maintenance: auto sign-in skipped until the administrator signs out or Windows restarts");
}

void EndAfterSignOut() noexcept {
  try {
    EndMaintenance("the administrator signed out");
  } catch (const std::exception& problem) {
    log::Log(log::kError, log::kKiosk, "maintenance could not be ended (%s)", problem.what());
  }
}

}  // namespace

json::Value Maintenance(const command::Request& request) {
  const text::Secret token = enrolment::ReadDeviceToken();
  if (const std::string code = Admit(request); !code.empty()) {
    return command::ErrorReply(code);
  }
  DropUnlock();
  const win32::LockGuard guard(AccountLock());
  // While the portal was asked, or the lock was waited for, the terminal may have been torn down.
  if (!enrolment::StillEnrolled(token.Get())) {
    return command::ErrorReply("not_enrolled");
  }
  BeginMaintenance();
  request.afterReply = [] { enrolment::LogOffKioskSessions(false); };
  return command::OkReply();
}

bool EndMaintenance(const char* reason) {
  if (!state::FlagIsOn(state::kMaintenance)) {
    return false;
  }
  const state::ReadWatch reads;
  const bool namesAreDue = KioskNamesAreDue();
  const win32::LockGuard guard(AutoLogonLock());
  if (!state::FlagIsOn(state::kMaintenance)) {
    return false;
  }
  // Without ownership the setting is the computer's own again: a teardown is on its way.
  const bool ours = state::TokenIsStored() && state::ReadState(state::kOwnsAutoLogon);
  // What could not be read may say whose the setting is: the mark stays, and the next start comes here again.
  if (!reads.AllKnown()) {
    log::Log(log::kError, log::kKiosk,
             "maintenance: cannot read whose auto sign-in is; it goes on until Windows restarts");
    return false;
  }
  // First, so that a start of the service takes a half of this for the maintenance of an earlier boot and ends it.
  state::DeleteStateValue(state::kMaintenanceAt);
  if (ours && namesAreDue) {
    PutKioskNamesBack();
  }
  if (ours && !SetAutoAdminLogon(true)) {
    return false;
  }
  const bool over = state::DeleteStateValue(state::kMaintenance);
  log::Log(log::kNotice, log::kKiosk, "maintenance over (%s): kiosk sign-in restored", reason);
  return ours && over;
}

void RepairMaintenance() {
  if (state::ReadStateQword(state::kMaintenanceAt) >= win32::WindowsStartedAt()) {
    if (state::ReadString(kWinlogonKey, kAutoAdminLogon) == L"1") {
      EndMaintenance("it was cut short as it began");
    }
    return;
  }
  if (!EndMaintenance("Windows restarted")) {
    return;
  }
  // Durably over, or every start would end in a restart.
  if (state::FlushStateKey() && state::FlagIsOn(state::kProvisioned) && AutoLogonNamesKiosk() &&
      enrolment::NobodyIsSignedIn()) {
    ScheduleIdleRestart("maintenance was cut short", IfSomebodySignsIn::kCallOff);
  }
}

void PrepareForShutdown() {
  EndMaintenance("Windows is restarting");
  ReclaimAutoLogon();
}

void RememberAdministratorSessions() {
  if (!state::FlagIsOn(state::kMaintenance)) {
    return;
  }
  const std::vector<DWORD> sessions = enrolment::OtherUsersSessions().value_or(std::vector<DWORD>());
  const win32::LockGuard guard(sessionsLock);
  AdministratorSessions().insert(sessions.begin(), sessions.end());
}

void OnSessionChange(DWORD event, DWORD session) {
  if (event == WTS_SESSION_LOGOFF) {
    OnSessionSignedOut(session);
  } else if (event == WTS_SESSION_LOGON && session != 0) {
    HoldIdleRestart(enrolment::IsKioskSession(session));
  }
  if (session == 0 || !state::FlagIsOn(state::kMaintenance)) {
    return;
  }
  if (event == WTS_SESSION_LOGON && !enrolment::IsKioskSession(session)) {
    const win32::LockGuard guard(sessionsLock);
    AdministratorSessions().insert(session);
  } else if (event == WTS_SESSION_LOGOFF) {
    win32::LockGuard guard(sessionsLock);
    const bool wasThere = AdministratorSessions().erase(session) != 0;
    guard.Unlock();
    // The local security authority is asked on the way, for which the control handler has no time; it does so all the
    // same where no thread can be had.
    if (wasThere && !win32::StartThread(EndAfterSignOut, win32::kSmallStack)) {
      EndAfterSignOut();
    }
  }
}

}  // namespace kiosk::account
