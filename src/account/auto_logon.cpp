#include "account/auto_logon.h"

#include "account/auto_logon_owner.h"
#include "account/sign_in_secret.h"
#include "account/winlogon.h"
#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "state/made_keys.h"
#include "win32/wide_text.h"

namespace kiosk::account {
namespace {

struct TouchedValue {
  const wchar_t* key;
  const wchar_t* name;
  const state::StateValue& prior;
};

// Every setting that automatic sign-in changes on the computer. The user's name is what tells a restore most surely
// that the settings still are the service's.
constexpr TouchedValue kUserName{kWinlogonKey, kDefaultUserName, state::kPriorDefaultUserName};
constexpr TouchedValue kTouched[] = {
    {kWinlogonKey, kAutoAdminLogon, state::kPriorAutoAdminLogon},
    kUserName,
    {kWinlogonKey, kDefaultDomainName, state::kPriorDefaultDomainName},
    {kWinlogonKey, kDefaultPassword, state::kPriorDefaultPassword},
    {kWinlogonKey, kAutoLogonCount, state::kPriorAutoLogonCount},
    {kPasswordLessKey, L"DevicePasswordLessBuildVersion", state::kPriorPasswordLess},
    {kSystemPoliciesKey, L"EnableFirstLogonAnimation", state::kPriorFirstLogonAnimation},
};

win32::Lock autoLogonLock{win32::LockRank::kLeaf};

// A copied value may be a password in clear text.
class CopiedValue : public state::RawValue {
 public:
  CopiedValue() = default;
  CopiedValue(const CopiedValue&) = delete;
  CopiedValue& operator=(const CopiedValue&) = delete;
  ~CopiedValue() {
    if (!bytes.empty()) {
      SecureZeroMemory(bytes.data(), bytes.size());
    }
  }
  [[nodiscard]] DWORD Size() const noexcept { return static_cast<DWORD>(bytes.size()); }
};

// Absence is saved as absence, so that no older copy comes back instead. A value that cannot be read is not absent.
bool Save(const TouchedValue& touched) {
  CopiedValue value;
  const LSTATUS status = state::ReadValue(touched.key, touched.name, value);
  if (status == ERROR_FILE_NOT_FOUND) {
    return state::DeleteStateValue(touched.prior);
  }
  return status == ERROR_SUCCESS && state::WriteExisting(state::kStateKey, touched.prior.name, value.type,
                                                         value.bytes.data(), value.Size()) == ERROR_SUCCESS;
}

void PutBack(const TouchedValue& touched) {
  CopiedValue value;
  const LSTATUS status = state::ReadValue(state::kStateKey, touched.prior.name, value);
  if (status == ERROR_FILE_NOT_FOUND) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, touched.key, touched.name);
  } else if (status == ERROR_SUCCESS) {
    state::WriteValue(HKEY_LOCAL_MACHINE, touched.key, touched.name, value.type, value.bytes.data(), value.Size());
  }
}

void ForgetCopies() {
  for (const TouchedValue& touched : kTouched) {
    state::DeleteStateValue(touched.prior);
  }
  state::DeleteStateValue(state::kPriorLsaSecret);
  state::DeleteStateValue(state::kAutoLogonRestoring);
}

// The digest first, since without the mark it would speak for nobody's secret. The mark before the copies: with it and
// without them, the next restore or enrolment would take the computer to have had no settings at all. As long as it
// cannot be deleted, both stay.
void GiveUpOwnership() {
  state::DeleteStateValue(state::kAutoLogonDigest);
  if (state::DeleteStateValue(state::kOwnsAutoLogon)) {
    ForgetCopies();
  }
}

bool Mark() { return state::WriteStateDword(state::kOwnsAutoLogon, 1) && state::FlushStateKey(); }

bool SaveAll() {
  for (const TouchedValue& touched : kTouched) {
    if (!Save(touched)) {
      return false;
    }
  }
  if (!state::NoteMissingKeys(state::kMadeSignInKeys, {kPasswordLessKey, kSystemPoliciesKey})) {
    return false;
  }
  // Before the first change, and durably: a power cut must not leave changed settings without the copies.
  return state::WriteStateDword(state::kPriorLsaSecret, PresentSecretDigest().empty() ? 0 : 1) && Mark();
}

// Whether there is anything to put back. Once that is decided it stays so, however often the restore is cut short and
// whoever signs in meanwhile.
bool BeginRestore() {
  if (state::FlagIsOn(state::kAutoLogonRestoring)) {
    return true;
  }
  if (!AutoLogonIsOurs()) {
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

}  // namespace

win32::Lock& AutoLogonLock() noexcept { return autoLogonLock; }

bool SetAutoAdminLogon(bool on) {
  const wchar_t* const text = on ? L"1" : L"0";
  if (!state::WriteValue(HKEY_LOCAL_MACHINE, kWinlogonKey, kAutoAdminLogon, REG_SZ, text, state::StringBytes(text))) {
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
  const LSTATUS status = state::ReadValue(state::kStateKey, state::kOwnsAutoLogon.name, mark);
  if (status == ERROR_SUCCESS && mark.Dword()) {
    // A new enrolment called off a restore that was cut short: the next one is to ask whose the settings are.
    return !state::ReadState(state::kAutoLogonRestoring) ||
           (state::DeleteStateValue(state::kAutoLogonRestoring) && state::FlushStateKey());
  }
  // A mark that cannot be read may stand: saving now could keep the kiosk's own settings as the computer's.
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
    return false;
  }
  // Somebody took the mark away under a kiosk: what there is to save now is its own, and the last of the copies tells
  // that they are all there.
  if (AutoLogonIsOurs() && state::ReadState(state::kPriorLsaSecret)) {
    return Mark();
  }
  if (SaveAll()) {
    return true;
  }
  GiveUpOwnership();
  return false;
}

void RestoreAutoLogon() {
  state::RawValue mark;
  const LSTATUS status = state::ReadValue(state::kStateKey, state::kOwnsAutoLogon.name, mark);
  if (status != ERROR_SUCCESS || !mark.Dword()) {
    // Copies without a mark are those of a take-over that was cut short before it changed anything, or of a restore
    // that was after it had put everything back. Beside the kiosk's settings they are all that is left of the owner's.
    if (status == ERROR_FILE_NOT_FOUND && !AutoLogonIsOurs()) {
      state::DeleteStateValue(state::kAutoLogonDigest);
      ForgetCopies();
    }
    return;
  }
  const bool ours = BeginRestore();
  if (ours) {
    StoreAutoLogonSecret(nullptr, 0);
    if (state::FlagIsOn(state::kPriorLsaSecret)) {
      log::Log(log::kWarn, log::kKiosk,
               "an auto sign-in secret from before enrolment was replaced and cannot be put back");
    }
  }
  const win32::LockGuard guard(AutoLogonLock());
  if (ours) {
    for (const TouchedValue& touched : kTouched) {
      if (touched.name != kUserName.name) {
        PutBack(touched);
      }
    }
    PutBack(kUserName);  // last: while it names the kiosk account, a restore that was cut short is done again
    log::Log(log::kNotice, log::kKiosk, "auto sign-in restored to what it was before enrolment");
  } else {
    log::Log(log::kWarn, log::kKiosk, "auto sign-in now names '%s', not %s; left as it is",
             win32::ToNarrow(state::ReadString(kUserName.key, kUserName.name).value_or(L"")).c_str(),
             enrolment::kKioskUserText);
  }
  GiveUpOwnership();
}

}  // namespace kiosk::account
