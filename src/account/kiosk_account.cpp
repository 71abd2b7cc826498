#include "account/kiosk_account.h"

#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <array>

namespace kiosk::account {
namespace {

// Administrators, Power Users, Remote Desktop Users, Backup Operators, Network Configuration Operators and Hyper-V
// Administrators. By SID, because their names differ with the language of Windows.
constexpr const wchar_t* kPrivilegedGroups[] = {L"S-1-5-32-544", L"S-1-5-32-547", L"S-1-5-32-555",
                                                L"S-1-5-32-551", L"S-1-5-32-556", L"S-1-5-32-578"};
constexpr DWORD kNameLength = 256;

// What Windows knows of the kiosk's user, in the record of that level.
NET_API_STATUS UserInfo(DWORD level, win32::NetBuffer& record) {
  BYTE* raw = nullptr;
  const NET_API_STATUS status = NetUserGetInfo(nullptr, enrolment::kKioskUser, level, &raw);
  record.Reset(raw);
  if (status != NERR_Success && status != NERR_UserNotFound) {
    log::Log(log::kError, log::kKiosk, "NetUserGetInfo(%s) failed (%lu)", enrolment::kKioskUserText, status);
  }
  return status;
}

}  // namespace

AccountLookup LookupKioskAccount(std::wstring& sid) {
  sid.clear();
  win32::NetBuffer record;
  const NET_API_STATUS status = UserInfo(23, record);
  if (status != NERR_Success) {
    return status == NERR_UserNotFound ? AccountLookup::kAbsent : AccountLookup::kFailed;
  }
  sid = win32::SidText(reinterpret_cast<const USER_INFO_23*>(record.Get())->usri23_user_sid);
  return sid.empty() ? AccountLookup::kFailed : AccountLookup::kPresent;
}

bool RecordedAccountPresent(std::wstring& sid) {
  const std::wstring recorded = state::ReadStateString(state::kAccountSid);
  return !recorded.empty() && LookupKioskAccount(sid) == AccountLookup::kPresent &&
         win32::EqualIgnoringCase(recorded, sid);
}

bool IsKioskProvisioned() {
  std::wstring sid;
  return state::FlagIsOn(state::kProvisioned) && RecordedAccountPresent(sid);
}

std::optional<bool> CreationWasCutShort() {
  state::RawValue noted;
  if (!state::ReadKnownState(state::kAccountCreating, noted)) {
    return std::nullopt;
  }
  const std::optional<std::uint64_t> begun = noted.Qword();
  if (!begun) {
    return false;
  }
  win32::NetBuffer record;
  if (UserInfo(3, record) != NERR_Success) {
    return std::nullopt;
  }
  const auto& user = *reinterpret_cast<const USER_INFO_3*>(record.Get());
  // Windows does not tell when an account was made. Its password is at most as old as the account, and an account that
  // never signed in has had nobody who could have changed it but an administrator. The age is a difference of whole
  // seconds and may be one too many.
  const std::uint64_t age = user.usri3_password_age * win32::kFileTimeSecond;
  return user.usri3_last_logon == 0 && user.usri3_num_logons == 0 &&
         win32::FileTimeNow() - age + win32::kFileTimeSecond >= *begun;
}

std::wstring WellKnownGroupName(const wchar_t* sidText) {
  const win32::LocalMemory sid = win32::ParseSid(sidText);
  std::array<wchar_t, kNameLength> name{};
  std::array<wchar_t, kNameLength> domain{};
  DWORD nameSize = kNameLength;
  DWORD domainSize = kNameLength;
  SID_NAME_USE use{};
  if (!sid || LookupAccountSidW(nullptr, sid.Get(), name.data(), &nameSize, domain.data(), &domainSize, &use) == 0) {
    return {};
  }
  return name.data();
}

void TrimPrivilegedGroups() {
  std::wstring sidText;
  if (!RecordedAccountPresent(sidText)) {
    return;
  }
  const win32::LocalMemory sid = win32::ParseSid(sidText.c_str());
  if (!sid) {
    return;
  }
  for (const wchar_t* const group : kPrivilegedGroups) {
    const std::wstring name = WellKnownGroupName(group);
    if (name.empty()) {
      continue;
    }
    LOCALGROUP_MEMBERS_INFO_0 member{sid.Get()};
    const NET_API_STATUS status =
        NetLocalGroupDelMembers(nullptr, name.c_str(), 0, reinterpret_cast<BYTE*>(&member), 1);
    if (status == NERR_Success) {
      log::Log(log::kWarn, log::kKiosk, "removed %s from %s", enrolment::kKioskUserText, win32::ToNarrow(name).c_str());
    } else if (status != ERROR_NO_SUCH_ALIAS && status != ERROR_MEMBER_NOT_IN_ALIAS && status != NERR_GroupNotFound) {
      log::Log(log::kError, log::kKiosk, "cannot check %s membership (%lu)", win32::ToNarrow(name).c_str(), status);
    }
  }
}

}  // namespace kiosk::account
