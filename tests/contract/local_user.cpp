#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/owners.h"
#include "win32/security.h"

namespace contract {

DWORD AddUser(std::wstring name, std::wstring password) {
  USER_INFO_1 info{};
  info.usri1_name = name.data();
  info.usri1_password = password.data();
  info.usri1_priv = USER_PRIV_USER;
  info.usri1_flags = UF_SCRIPT | UF_DONT_EXPIRE_PASSWD | UF_PASSWD_CANT_CHANGE;
  const NET_API_STATUS added = NetUserAdd(nullptr, 1, reinterpret_cast<BYTE*>(&info), nullptr);
  SecureZeroMemory(password.data(), password.size() * sizeof(wchar_t));
  return added;
}

std::wstring SidOfUser(const wchar_t* name) {
  BYTE* raw = nullptr;
  const NET_API_STATUS told = NetUserGetInfo(nullptr, name, 23, &raw);
  const kiosk::win32::NetBuffer owned(raw);
  SetLastError(told);
  return told == NERR_Success ? kiosk::win32::SidText(reinterpret_cast<USER_INFO_23*>(raw)->usri23_user_sid) : L"";
}

LocalUser::LocalUser() {
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine's users have no SID");
  }
  const DWORD added = AddUser(kName, L"Pr00f-of-the-kiosk!");
  SetLastError(added);
  Asked::Needs(added == NERR_Success, "a local user");
  sid_ = SidOfUser(kName);
  if (sid_.empty()) {
    const DWORD error = GetLastError();
    NetUserDel(nullptr, kName);
    SetLastError(error);
    Asked::Needs(false, "the SID of a local user");
  }
}

LocalUser::~LocalUser() { NetUserDel(nullptr, kName); }

}  // namespace contract
