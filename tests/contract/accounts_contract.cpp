// Local users and groups.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <lm.h>
#include <sddl.h>

namespace contract {
namespace {

using kiosk::win32::LocalMemory;

constexpr wchar_t kNobody[] = L"NorvaneProofNobody";

NET_API_STATUS Add(const wchar_t* name) {
  std::wstring user = name;
  std::wstring password = L"Pr00f-of-the-kiosk!";
  USER_INFO_1 info{};
  info.usri1_name = user.data();
  info.usri1_password = password.data();
  info.usri1_priv = USER_PRIV_USER;
  info.usri1_flags = UF_SCRIPT | UF_DONT_EXPIRE_PASSWD | UF_PASSWD_CANT_CHANGE;
  return NetUserAdd(nullptr, 1, reinterpret_cast<BYTE*>(&info), nullptr);
}

NET_API_STATUS Get(const wchar_t* name, DWORD level) {
  BYTE* info = nullptr;
  const NET_API_STATUS status = NetUserGetInfo(nullptr, name, level, &info);
  NetApiBufferFree(info);
  return status;
}

std::wstring GroupName(const wchar_t* sidText) {
  PSID sid = nullptr;
  ConvertStringSidToSidW(sidText, &sid);
  const LocalMemory owned(sid);
  wchar_t name[256]{};
  wchar_t domain[256]{};
  DWORD nameSize = 256;
  DWORD domainSize = 256;
  SID_NAME_USE use;
  Asked::Needs(LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use) != 0, "the name of a group");
  return name;
}

void MissingUsersAreTold(Asked& asked) {
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine lacks NetUserSetInfo, and ends the program that calls it");
  }
  asked.Same("NetUserGetInfo", Get(kNobody, 3), NERR_UserNotFound);
  asked.Same("NetUserDel", NetUserDel(nullptr, kNobody), NERR_UserNotFound);
  USER_INFO_1008 flags{UF_SCRIPT};
  asked.Same("NetUserSetInfo", NetUserSetInfo(nullptr, kNobody, 1008, reinterpret_cast<BYTE*>(&flags), nullptr),
             NERR_UserNotFound);
}

void UsersAreMadeOnce(Asked& asked) {
  const LocalUser user;
  asked.Same("a second time", Add(LocalUser::kName), NERR_UserExists);
  asked.Same("in other letters", Get(L"NORVANEPROOFUSER", 3), NERR_Success);
}

void UsersChange(Asked& asked) {
  const LocalUser user;
  std::wstring fullName = L"Proof of the kiosk";
  USER_INFO_1011 name{fullName.data()};
  asked.Same("full name", NetUserSetInfo(nullptr, LocalUser::kName, 1011, reinterpret_cast<BYTE*>(&name), nullptr),
             NERR_Success);
  USER_INFO_1008 flags{UF_SCRIPT | UF_ACCOUNTDISABLE | UF_NORMAL_ACCOUNT};
  asked.Same("flags", NetUserSetInfo(nullptr, LocalUser::kName, 1008, reinterpret_cast<BYTE*>(&flags), nullptr),
             NERR_Success);
  BYTE* raw = nullptr;
  asked.Same("NetUserGetInfo", NetUserGetInfo(nullptr, LocalUser::kName, 3, &raw), NERR_Success);
  const AtEnd free([&] { NetApiBufferFree(raw); });
  if (raw != nullptr) {
    const auto& info = *reinterpret_cast<USER_INFO_3*>(raw);
    asked.True("the age of the password, in seconds", info.usri3_password_age < 60);
    asked.Same("the last sign-in of one who never did", info.usri3_last_logon, 0);
  }
}

void SidsAreTold(Asked& asked) {
  const LocalUser user;
  asked.True("a SID of this machine", user.Sid().starts_with(L"S-1-5-21-"));
  PSID sid = nullptr;
  ConvertStringSidToSidW(user.Sid().c_str(), &sid);
  const LocalMemory owned(sid);
  wchar_t name[2];
  wchar_t domain[256];
  DWORD nameSize = 2;
  DWORD domainSize = 256;
  SID_NAME_USE use;
  asked.Fails("too little room", LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
  asked.Same("the room that it wants", nameSize, std::size(LocalUser::kName));
}

void DeletedUsersHaveNoName(Asked& asked) {
  std::wstring text;
  {
    const LocalUser user;
    text = user.Sid();
  }
  PSID sid = nullptr;
  ConvertStringSidToSidW(text.c_str(), &sid);
  const LocalMemory owned(sid);
  wchar_t name[256];
  wchar_t domain[256];
  DWORD nameSize = 256;
  DWORD domainSize = 256;
  SID_NAME_USE use;
  asked.Fails("LookupAccountSidW", LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use) != 0,
              {ERROR_NONE_MAPPED});
}

void MembershipsAreTold(Asked& asked) {
  const LocalUser user;
  const std::wstring group = GroupName(L"S-1-5-32-555");
  PSID sid = nullptr;
  ConvertStringSidToSidW(user.Sid().c_str(), &sid);
  const LocalMemory owned(sid);
  LOCALGROUP_MEMBERS_INFO_0 member{sid};
  auto* const data = reinterpret_cast<BYTE*>(&member);
  asked.Same("not a member", NetLocalGroupDelMembers(nullptr, group.c_str(), 0, data, 1), ERROR_MEMBER_NOT_IN_ALIAS);
  asked.Same("made one", NetLocalGroupAddMembers(nullptr, group.c_str(), 0, data, 1), NERR_Success);
  asked.Same("made one twice", NetLocalGroupAddMembers(nullptr, group.c_str(), 0, data, 1), ERROR_MEMBER_IN_ALIAS);
  asked.Same("no longer one", NetLocalGroupDelMembers(nullptr, group.c_str(), 0, data, 1), NERR_Success);
  asked.OneOf("a group that is not there", NetLocalGroupAddMembers(nullptr, L"NorvaneProofGroup", 0, data, 1),
              {NERR_GroupNotFound, ERROR_NO_SUCH_ALIAS});
}

constexpr Case kCases[] = {
    {"missing", "a user that is not there is told by an error of its own", MissingUsersAreTold},
    {"once", "a name is given once, in any case of letters", UsersAreMadeOnce},
    {"change", "full name and flags can be set, and a new user has never signed in", UsersChange},
    {"sid", "a user has a SID, by which he is found", SidsAreTold},
    {"deleted", "a deleted user's SID has no name", DeletedUsersHaveNoName},
    {"members", "groups tell who is a member already, and who is none", MembershipsAreTold},
};

}  // namespace

extern const Group kAccounts;
const Group kAccounts{"accounts", kCases};

}  // namespace contract
