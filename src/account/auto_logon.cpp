#include "account/auto_logon.h"

#include "account/auto_logon_owner.h"
#include "account/sign_in_secret.h"
#include "account/winlogon.h"
#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "state/borrowed_settings.h"
#include "state/kiosk_state.h"
#include "state/made_keys.h"
#include "win32/wide_text.h"

namespace kiosk::account {
namespace {

// Every setting of the computer's that automatic sign-in changes. Of these the user's name tells a restore most surely
// that they are still the service's.
constexpr state::BorrowedValue kUserName{kWinlogonKey, kDefaultUserName, &state::kPriorDefaultUserName};
constexpr state::BorrowedValue kValues[] = {
    {kWinlogonKey, kAutoAdminLogon, &state::kPriorAutoAdminLogon},
    kUserName,
    {kWinlogonKey, kDefaultDomainName, &state::kPriorDefaultDomainName},
    {kWinlogonKey, kDefaultPassword, &state::kPriorDefaultPassword},
    {kWinlogonKey, kAutoLogonCount, &state::kPriorAutoLogonCount},
    {kPasswordLessKey, kPasswordLessVersion, &state::kPriorPasswordLess},
    {kSystemPoliciesKey, kFirstLogonAnimation, &state::kPriorFirstLogonAnimation},
};
constexpr state::BorrowedSettings kBorrowed{state::kOwnsAutoLogon, kValues};

win32::Lock autoLogonLock{win32::LockRank::kLeaf};

// What goes with the copies.
void ForgetSecretAndRestore() {
  state::DeleteStateValue(state::kPriorLsaSecret);
  state::DeleteStateValue(state::kAutoLogonRestoring);
}

// The digest first, since without the mark it would speak for nobody's secret.
void GiveUpOwnership() {
  state::DeleteStateValue(state::kAutoLogonDigest);
  if (kBorrowed.Forget()) {
    ForgetSecretAndRestore();
  }
}

// A restore of an earlier enrolment that has ended may have left its mark, which would answer the next one's question.
bool SaveAll() {
  return state::DeleteStateValue(state::kAutoLogonRestoring) && kBorrowed.Save() &&
         state::NoteMissingKeys(state::kMadeSignInKeys, {kPasswordLessKey, kSystemPoliciesKey}) &&
         state::WriteStateDword(state::kPriorLsaSecret, PresentSecretDigest().empty() ? 0 : 1) && kBorrowed.Mark();
}

// Automatic sign-in of nobody. Where the service could not store a secret either, a name is but Windows' note of who
// signed in last.
bool IsNobodys() { return state::ReadStateString(state::kAutoLogonDigest).empty() && !AutoLogonIsOn(); }

// Whether there is anything to put back. Once that is decided it stays so, however often the restore is cut short and
// whoever signs in meanwhile.
bool BeginRestore(const state::ReadWatch& reads) {
  if (state::FlagIsOn(state::kAutoLogonRestoring)) {
    return true;
  }
  if ((!AutoLogonIsOurs() && !IsNobodys()) || !reads.AllKnown()) {
    return false;
  }
  if (!AutoLogonNamesKiosk()) {
    const win32::LockGuard guard(AutoLogonLock());
    WriteKioskNames();
  }
  state::WriteStateDword(state::kAutoLogonRestoring, 1);
  state::FlushStateKey();
  return true;
}

// Where the service never stored one, that from before enrolment is still there, and stays.
void DeleteSecret(const state::ReadWatch& reads) {
  const bool hadOne = state::FlagIsOn(state::kPriorLsaSecret);
  if ((hadOne && state::ReadStateString(state::kAutoLogonDigest).empty()) || !reads.AllKnown()) {
    return;
  }
  StoreAutoLogonSecret(nullptr, 0);
  if (hadOne) {
    log::Log(log::kWarn, log::kKiosk,
             "an auto sign-in secret from before enrolment was replaced and cannot be put back");
  }
}

// Twice, since the copies go with the mark. The log does not say what it was: one of them is a password.
void PutBackOrTell(const state::BorrowedValue& value) {
  bool back = state::PutBack(value);
  back = back || state::PutBack(value);
  if (!back) {
    log::Log(log::kError, log::kKiosk, "auto sign-in: cannot put %s back", win32::ToNarrow(value.name).c_str());
  }
}

}  // namespace

win32::Lock& AutoLogonLock() noexcept { return autoLogonLock; }

bool SetAutoAdminLogon(bool on) {
  if (!state::WriteString(kWinlogonKey, kAutoAdminLogon, on ? L"1" : L"0")) {
    log::Log(log::kError, log::kKiosk, "cannot set AutoAdminLogon=%d", on ? 1 : 0);
    return false;
  }
  return true;
}

void PutKioskNamesBack() {
  // A teardown that came in between has given the settings back.
  if (!state::ReadState(state::kOwnsAutoLogon)) {
    return;
  }
  if (WriteKioskNames()) {
    log::Log(log::kNotice, log::kKiosk, "auto sign-in names %s again", enrolment::kKioskUserText);
  } else {
    log::Log(log::kError, log::kKiosk, "cannot name %s for auto sign-in", enrolment::kKioskUserText);
  }
}

void ReclaimAutoLogon() {
  if (KioskNamesAreDue()) {
    const win32::LockGuard guard(AutoLogonLock());
    PutKioskNamesBack();
  }
}

void RepairAutoLogon() {
  ReclaimAutoLogon();
  if (state::ReadState(state::kOwnsAutoLogon) && !state::ReadState(state::kAutoLogonDigest) &&
      state::FlagIsOn(state::kProvisioned) && AutoLogonNamesKiosk()) {
    NoteSecretAsOurs();
  }
}

void KeepAutoLogon() {
  if (state::FlagIsOn(state::kProvisioned) && !state::FlagIsOn(state::kMaintenance) &&
      state::ReadString(kWinlogonKey, kAutoAdminLogon) == L"1") {
    ReclaimAutoLogon();
  }
}

bool TakeOverAutoLogon() {
  state::RawValue mark;
  const bool known = state::ReadKnownState(kBorrowed.mark, mark);
  if (mark.Dword()) {
    // A new enrolment calls off a restore that was cut short: the next restore asks anew whose the settings are.
    return !state::ReadState(state::kAutoLogonRestoring) ||
           (state::DeleteStateValue(state::kAutoLogonRestoring) && state::FlushStateKey());
  }
  // A mark that cannot be read may be there: saving now could take the kiosk's own settings for the computer's.
  if (!known) {
    return false;
  }
  // Somebody deleted the mark of a kiosk: what could be saved now are the kiosk's own settings. "PriorLsaSecret" is
  // written last, so where it stands all copies do.
  if (AutoLogonIsOurs() && state::ReadState(state::kPriorLsaSecret)) {
    return kBorrowed.Mark();
  }
  if (SaveAll()) {
    return true;
  }
  GiveUpOwnership();
  return false;
}

void RestoreAutoLogon() {
  const state::ReadWatch reads;
  state::RawValue mark;
  const LSTATUS status = state::ReadState(kBorrowed.mark, mark);
  if (status != ERROR_SUCCESS || !mark.Dword()) {
    // Copies without a mark are left by a take-over that was cut short before it changed anything, or by a restore that
    // was cut short after it had put everything back. But while the settings are still the kiosk's, the copies are all
    // that is left of the owner's, and stay.
    if (status == ERROR_FILE_NOT_FOUND && !AutoLogonIsOurs() && reads.AllKnown()) {
      state::DeleteStateValue(state::kAutoLogonDigest);
      kBorrowed.ForgetCopies();
      ForgetSecretAndRestore();
    }
    return;
  }
  const bool ours = BeginRestore(reads);
  if (ours) {
    DeleteSecret(reads);
  }
  const win32::LockGuard guard(AutoLogonLock());
  if (ours) {
    for (const state::BorrowedValue& value : kValues) {
      if (value.name != kUserName.name) {
        PutBackOrTell(value);
      }
    }
    PutBackOrTell(kUserName);  // last: while it names the kiosk account, a restore that was cut short is done again
    log::Log(log::kNotice, log::kKiosk, "auto sign-in restored to what it was before enrolment");
  } else if (reads.AllKnown()) {
    log::Log(log::kWarn, log::kKiosk, "auto sign-in now names '%s', not %s; left as it is",
             win32::ToNarrow(state::ReadString(kUserName.key, kUserName.name).value_or(L"")).c_str(),
             enrolment::kKioskUserText);
  }
  // A restore that could not read everything is done again, with the copies.
  if (reads.AllKnown()) {
    GiveUpOwnership();
  }
}

}  // namespace kiosk::account
