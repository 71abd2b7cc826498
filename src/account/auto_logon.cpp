#include "account/auto_logon.h"

#include "account/kiosk_session.h"
#include "account/winlogon.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/lsa_handle.h"
#include "win32/wide_text.h"

namespace kiosk::account {
namespace {

struct TouchedValue {
  const wchar_t* key;
  const wchar_t* name;
  const state::StateValue& prior;
};

// Every setting that automatic sign-in changes on the computer. The user's name is what tells a restore that the
// settings still are the service's.
constexpr TouchedValue kUserName{kWinlogonKey, L"DefaultUserName", state::kPriorDefaultUserName};
constexpr TouchedValue kTouched[] = {
    {kWinlogonKey, L"AutoAdminLogon", state::kPriorAutoAdminLogon},
    kUserName,
    {kWinlogonKey, L"DefaultDomainName", state::kPriorDefaultDomainName},
    {kWinlogonKey, L"DefaultPassword", state::kPriorDefaultPassword},
    {kWinlogonKey, L"AutoLogonCount", state::kPriorAutoLogonCount},
    {kPasswordLessKey, L"DevicePasswordLessBuildVersion", state::kPriorPasswordLess},
    {kSystemPoliciesKey, L"EnableFirstLogonAnimation", state::kPriorFirstLogonAnimation},
};

win32::Lock autoLogonLock{win32::LockRank::kLeaf};

LSA_UNICODE_STRING Counted(const wchar_t* text, std::size_t length) {
  const auto bytes = static_cast<USHORT>(length * sizeof(wchar_t));
  return {bytes, static_cast<USHORT>(bytes + sizeof(wchar_t)), const_cast<wchar_t*>(text)};
}

LSA_UNICODE_STRING SecretName() {
  static constexpr std::wstring_view kName = L"DefaultPassword";
  return Counted(kName.data(), kName.size());
}

NTSTATUS OpenPolicy(ACCESS_MASK access, win32::LsaHandle& policy) {
  LSA_OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof(attributes);
  return LsaOpenPolicy(nullptr, &attributes, access, policy.Put());
}

// Whether the computer has a secret of its own. What it holds is not kept.
bool SecretExists() {
  win32::LsaHandle policy;
  LSA_UNICODE_STRING name = SecretName();
  LSA_UNICODE_STRING* data = nullptr;
  if (OpenPolicy(POLICY_GET_PRIVATE_INFORMATION, policy) < 0 ||
      LsaRetrievePrivateData(policy.Get(), &name, &data) < 0 || data == nullptr) {
    return false;
  }
  const win32::LsaMemory owner(data);
  if (data->Buffer != nullptr) {
    SecureZeroMemory(data->Buffer, data->Length);
  }
  return true;
}

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
}

// The mark before the copies: with it and without them, the next restore or enrolment would take the computer to have
// had no settings at all. As long as it cannot be deleted, both stay.
void GiveUpOwnership() {
  if (state::DeleteStateValue(state::kOwnsAutoLogon)) {
    ForgetCopies();
  }
}

bool NamesKioskUser() {
  return win32::EqualIgnoringCase(state::ReadString(kUserName.key, kUserName.name).value_or(L""), kKioskUser);
}

bool Mark() { return state::WriteStateDword(state::kOwnsAutoLogon, 1) && state::FlushStateKey(); }

bool SaveAll() {
  for (const TouchedValue& touched : kTouched) {
    if (!Save(touched)) {
      return false;
    }
  }
  // Before the first change, and durably: a power cut must not leave changed settings without the copies.
  return state::WriteStateDword(state::kPriorLsaSecret, SecretExists() ? 1 : 0) && Mark();
}

}  // namespace

win32::Lock& AutoLogonLock() noexcept { return autoLogonLock; }

bool StoreAutoLogonSecret(const wchar_t* password, std::size_t length) {
  win32::LsaHandle policy;
  const NTSTATUS opened = OpenPolicy(POLICY_CREATE_SECRET, policy);
  if (opened < 0) {
    log::Log(log::kError, log::kKiosk, "LsaOpenPolicy failed (%lu)", LsaNtStatusToWinError(opened));
    return false;
  }
  LSA_UNICODE_STRING name = SecretName();
  LSA_UNICODE_STRING data = Counted(password, length);
  const NTSTATUS stored = LsaStorePrivateData(policy.Get(), &name, password != nullptr ? &data : nullptr);
  const ULONG error = LsaNtStatusToWinError(stored);
  if (error == ERROR_SUCCESS || (password == nullptr && error == ERROR_FILE_NOT_FOUND)) {
    return true;
  }
  log::Log(log::kError, log::kKiosk, "LsaStorePrivateData failed (%lu)", error);
  return false;
}

bool SetAutoAdminLogon(bool on) {
  const wchar_t* const text = on ? L"1" : L"0";
  if (!state::WriteValue(HKEY_LOCAL_MACHINE, kWinlogonKey, L"AutoAdminLogon", REG_SZ, text, state::StringBytes(text))) {
    log::Log(log::kError, log::kKiosk, "cannot set AutoAdminLogon=%d", on ? 1 : 0);
    return false;
  }
  return true;
}

bool TakeOverAutoLogon() {
  state::RawValue mark;
  const LSTATUS status = state::ReadValue(state::kStateKey, state::kOwnsAutoLogon.name, mark);
  if (status == ERROR_SUCCESS && mark.Dword()) {
    return true;
  }
  // A mark that cannot be read may stand: saving now could keep the kiosk's own settings as the computer's.
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
    return false;
  }
  // Somebody took the mark away under a kiosk: what there is to save now is its own, and the last of the copies tells
  // that they are all there.
  if (NamesKioskUser() && state::ReadState(state::kPriorLsaSecret)) {
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
    if (status == ERROR_FILE_NOT_FOUND && !NamesKioskUser()) {
      ForgetCopies();
    }
    return;
  }
  const bool ours = NamesKioskUser();
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
             win32::ToNarrow(kKioskUser).c_str());
  }
  GiveUpOwnership();
}

}  // namespace kiosk::account
