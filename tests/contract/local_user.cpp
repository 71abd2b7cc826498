#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <lm.h>
#include <sddl.h>

namespace contract {

LocalUser::LocalUser() {
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine's users have no SID");
  }
  std::wstring name = kName;
  std::wstring password = L"Pr00f-of-the-kiosk!";
  USER_INFO_1 info{};
  info.usri1_name = name.data();
  info.usri1_password = password.data();
  info.usri1_priv = USER_PRIV_USER;
  info.usri1_flags = UF_SCRIPT | UF_DONT_EXPIRE_PASSWD | UF_PASSWD_CANT_CHANGE;
  const NET_API_STATUS added = NetUserAdd(nullptr, 1, reinterpret_cast<BYTE*>(&info), nullptr);
  SetLastError(added);
  Asked::Needs(added == NERR_Success, "a local user");
  BYTE* raw = nullptr;
  const NET_API_STATUS told = NetUserGetInfo(nullptr, kName, 23, &raw);
  wchar_t* text = nullptr;
  if (told == NERR_Success) {
    ConvertSidToStringSidW(reinterpret_cast<USER_INFO_23*>(raw)->usri23_user_sid, &text);
  }
  const kiosk::win32::LocalMemory owned(text);
  NetApiBufferFree(raw);
  if (text == nullptr) {
    NetUserDel(nullptr, kName);
    SetLastError(told);
    Asked::Needs(false, "the SID of a local user");
  }
  sid_ = text;
}

LocalUser::~LocalUser() { NetUserDel(nullptr, kName); }

}  // namespace contract
