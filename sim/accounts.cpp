#include "sim/accounts.h"

#include "sim/buffers.h"
#include "sim/clock.h"
#include "sim/faults.h"

#include <lm.h>
#include <sddl.h>

#include <algorithm>
#include <cwchar>

namespace sim {
namespace {

constexpr std::uint64_t kPerSecond = 10'000'000;
constexpr std::uint64_t kUnixEpoch = 11'644'473'600;  // seconds from 1601 to 1970

struct Group {
  const wchar_t* sid;
  const wchar_t* english;
  const wchar_t* german;
};
constexpr const wchar_t* kHyperV = L"S-1-5-32-578";
constexpr Group kGroups[] = {
    {L"S-1-5-32-544", L"Administrators", L"Administratoren"},
    {L"S-1-5-32-545", L"Users", L"Benutzer"},
    {L"S-1-5-32-547", L"Power Users", L"Hauptbenutzer"},
    {L"S-1-5-32-551", L"Backup Operators", L"Sicherungs-Operatoren"},
    {L"S-1-5-32-555", L"Remote Desktop Users", L"Remotedesktopbenutzer"},
    {L"S-1-5-32-556", L"Network Configuration Operators", L"Netzwerkkonfigurations-Operatoren"},
    {kHyperV, L"Hyper-V Administrators", L"Hyper-V-Administratoren"},
};

Buffers buffers;

std::wstring UserArea(const std::wstring& name) { return L"Users\\" + name; }
std::wstring GroupArea(const std::wstring& sid) { return L"Groups\\" + sid; }

bool Exists(const Group& group) { return group.sid != kHyperV || AreaExists(GroupArea(kHyperV)); }

std::uint64_t ReadTime(const std::wstring& area, const wchar_t* name) {
  return std::wcstoull(ReadText(area, name).value_or(L"0").c_str(), nullptr, 10);
}

bool Same(const std::wstring& one, const std::wstring& other) { return _wcsicmp(one.c_str(), other.c_str()) == 0; }

std::wstring SidOf(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) {
    Violation("a SID is not valid");
    return {};
  }
  std::wstring copy = text;
  LocalFree(text);
  return copy;
}

// Copies text out by the rule of LookupAccountSidW: sizes in characters, with the zero when there is no room.
bool CopyOut(const std::wstring& text, wchar_t* buffer, DWORD* size) {
  const DWORD length = static_cast<DWORD>(text.size());
  const bool fits = buffer != nullptr && *size > length;
  if (fits) {
    std::copy_n(text.c_str(), length + 1, buffer);
  }
  *size = fits ? length : length + 1;
  return fits;
}

// One call for members of a group: the group's SID and the members' SIDs, or the status that says why not.
template <typename Each>
NET_API_STATUS ForMembers(const char* function, LPCWSTR server, LPCWSTR name, DWORD level, LPBYTE data, DWORD count,
                          Each each) {
  if (server != nullptr || name == nullptr || level != 0 || data == nullptr || count == 0) {
    Violation("%s: another machine, level %lu, or no members", function, level);
    return ERROR_INVALID_LEVEL;
  }
  return Change<NET_API_STATUS>(function, name, [&]() -> NET_API_STATUS {
    const auto* group = std::find_if(std::begin(kGroups), std::end(kGroups), [&](const Group& candidate) {
      return Exists(candidate) && Same(germanGroups.Get() != 0 ? candidate.german : candidate.english, name);
    });
    if (group == std::end(kGroups)) {
      return NERR_GroupNotFound;
    }
    for (DWORD i = 0; i < count; ++i) {
      const PSID member = reinterpret_cast<LOCALGROUP_MEMBERS_INFO_0*>(data)[i].lgrmi0_sid;
      if (const NET_API_STATUS status = each(GroupArea(group->sid), SidOf(member)); status != NERR_Success) {
        return status;
      }
    }
    return NERR_Success;
  });
}

// By its name alone: no call takes a SID for one.
std::optional<User> FindNamed(const std::wstring& name) {
  return ReadText(UserArea(name), L"Sid") ? FindUser(name) : std::nullopt;
}

void CheckFlags(const char* function, DWORD flags) {
  if ((flags & UF_SCRIPT) == 0) {
    Violation("%s: flags 0x%lx without UF_SCRIPT", function, flags);
  }
}

}  // namespace

std::wstring ComputerName() {
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = L"";
  DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
  GetComputerNameW(name, &size);
  return name;
}

std::vector<std::wstring> UserNames() {
  std::vector<std::wstring> names = AreaNames(L"Users");
  std::erase_if(names, [](const std::wstring& name) { return !ReadText(UserArea(name), L"Sid"); });
  return names;
}

std::optional<User> FindUser(const std::wstring& nameOrSid) {
  for (const std::wstring& name : UserNames()) {
    const std::wstring area = UserArea(name);
    const auto text = [&area](const wchar_t* value) { return ReadText(area, value).value_or(L""); };
    User user{name, text(L"Sid"), text(L"Password"), text(L"FullName"), ReadNumber(area, L"Flags").value_or(0)};
    user.created = ReadTime(area, L"Created");
    user.passwordSet = ReadTime(area, L"PasswordSet");
    user.lastLogon = ReadTime(area, L"LastLogon");
    if (Same(user.name, nameOrSid) || Same(user.sid, nameOrSid)) {
      return user;
    }
  }
  return std::nullopt;
}

void ChangeUser(const User& user) {
  const std::wstring area = UserArea(user.name);
  WriteText(area, L"Password", user.password);
  WriteText(area, L"FullName", user.fullName);
  WriteNumber(area, L"Flags", user.flags);
  WriteText(area, L"Created", std::to_wstring(user.created));
  WriteText(area, L"PasswordSet", std::to_wstring(user.passwordSet));
  WriteText(area, L"LastLogon", std::to_wstring(user.lastLogon));
}

std::wstring AddUser(const std::wstring& name, const std::wstring& password, DWORD flags) {
  const DWORD number = ReadNumber(L"", L"NextUser").value_or(1001);
  WriteNumber(L"", L"NextUser", number + 1);
  std::wstring sid = kMachineSid + std::to_wstring(number);
  ChangeUser({name, sid, password, L"", flags | UF_NORMAL_ACCOUNT, UtcTime(), UtcTime(), 0});
  WriteText(UserArea(name), L"Sid", sid);
  return sid;
}

void RemoveUser(const std::wstring& name) {
  const std::wstring sid = FindUser(name).value_or(User()).sid;
  ForgetValue(UserArea(name), L"Sid");
  for (const Group& group : kGroups) {
    ForgetValue(GroupArea(group.sid), sid);
  }
  ForgetArea(UserArea(name));
}

std::vector<std::wstring> GroupMembers(const std::wstring& groupSid) { return ValueNames(GroupArea(groupSid)); }

void AddToGroup(const std::wstring& groupSid, const std::wstring& memberSid) {
  WriteText(GroupArea(groupSid), memberSid, L"");
}

void FailAccountLookups(DWORD status, DWORD level) {
  WriteNumber(L"", L"LookupStatus", status);
  WriteNumber(L"", L"LookupLevel", level);
}

}  // namespace sim

using namespace sim;

SIM(NET_API_STATUS, NetUserGetInfo, LPCWSTR server, LPCWSTR name, DWORD level, LPBYTE* result) {
  if (server != nullptr || name == nullptr || result == nullptr || (level != 3 && level != 23)) {
    Violation("NetUserGetInfo: level %lu of a user of this machine is not simulated", level);
    return ERROR_INVALID_LEVEL;
  }
  *result = nullptr;
  const DWORD status = ReadNumber(L"", L"LookupStatus").value_or(NERR_Success);
  const DWORD failing = ReadNumber(L"", L"LookupLevel").value_or(0);
  if (status != NERR_Success && (failing == 0 || failing == level)) {
    return status;
  }
  const std::optional<User> user = FindNamed(name);
  if (!user) {
    return NERR_UserNotFound;
  }
  // Of the records, what the service reads.
  if (level == 3) {
    auto* const info = static_cast<USER_INFO_3*>(buffers.New(sizeof(USER_INFO_3)));
    info->usri3_password_age = static_cast<DWORD>((UtcTime() - user->passwordSet) / kPerSecond);
    info->usri3_last_logon = user->lastLogon == 0 ? 0 : static_cast<DWORD>(user->lastLogon / kPerSecond - kUnixEpoch);
    info->usri3_num_logons = user->lastLogon == 0 ? 0 : 1;
    *result = reinterpret_cast<LPBYTE>(info);
  } else {
    PSID sid = nullptr;
    ConvertStringSidToSidW(user->sid.c_str(), &sid);
    auto* const info = static_cast<USER_INFO_23*>(buffers.New(sizeof(USER_INFO_23) + GetLengthSid(sid)));
    info->usri23_flags = user->flags;
    info->usri23_user_sid = info + 1;  // behind the record
    CopySid(GetLengthSid(sid), info->usri23_user_sid, sid);
    LocalFree(sid);
    *result = reinterpret_cast<LPBYTE>(info);
  }
  return NERR_Success;
}

SIM(NET_API_STATUS, NetApiBufferFree, LPVOID memory) {
  if (memory != nullptr && !buffers.Free(memory)) {
    Violation("NetApiBufferFree: not a buffer that is in use");
    return ERROR_INVALID_PARAMETER;
  }
  return NERR_Success;
}

SIM(NET_API_STATUS, NetUserAdd, LPCWSTR server, DWORD level, LPBYTE data, LPDWORD) {
  if (server != nullptr || level != 1 || data == nullptr) {
    Violation("NetUserAdd: another machine, or level %lu", level);
    return ERROR_INVALID_LEVEL;
  }
  const auto& info = *reinterpret_cast<USER_INFO_1*>(data);
  CheckFlags("NetUserAdd", info.usri1_flags);
  if (info.usri1_name == nullptr || *info.usri1_name == L'\0' || info.usri1_priv != USER_PRIV_USER) {
    Violation("NetUserAdd: no name, or a privilege other than a user's");
    return ERROR_INVALID_PARAMETER;
  }
  return Change<NET_API_STATUS>(__func__ + 4, info.usri1_name, [&]() -> NET_API_STATUS {
    if (FindNamed(info.usri1_name)) {
      return NERR_UserExists;
    }
    AddUser(info.usri1_name, info.usri1_password != nullptr ? info.usri1_password : L"", info.usri1_flags);
    return NERR_Success;
  });
}

SIM(NET_API_STATUS, NetUserSetInfo, LPCWSTR server, LPCWSTR name, DWORD level, LPBYTE data, LPDWORD) {
  if (server != nullptr || name == nullptr || data == nullptr || (level != 1003 && level != 1008 && level != 1011)) {
    Violation("NetUserSetInfo: level %lu of a user of this machine is not simulated", level);
    return ERROR_INVALID_LEVEL;
  }
  if (level == 1008) {
    CheckFlags("NetUserSetInfo", reinterpret_cast<USER_INFO_1008*>(data)->usri1008_flags);
  }
  return Change<NET_API_STATUS>(__func__ + 4, name + (L" " + std::to_wstring(level)), [&]() -> NET_API_STATUS {
    std::optional<User> user = FindNamed(name);
    if (!user) {
      return NERR_UserNotFound;
    }
    if (level == 1003) {
      user->password = reinterpret_cast<USER_INFO_1003*>(data)->usri1003_password;
      user->passwordSet = UtcTime();
    } else if (level == 1008) {
      user->flags = reinterpret_cast<USER_INFO_1008*>(data)->usri1008_flags | UF_NORMAL_ACCOUNT;
    } else {
      user->fullName = reinterpret_cast<USER_INFO_1011*>(data)->usri1011_full_name;
    }
    ChangeUser(*user);
    return NERR_Success;
  });
}

SIM(NET_API_STATUS, NetUserDel, LPCWSTR server, LPCWSTR name) {
  if (server != nullptr || name == nullptr || *name == L'\0') {
    Violation("NetUserDel: another machine, or no name");
    return ERROR_INVALID_PARAMETER;
  }
  return Change<NET_API_STATUS>(__func__ + 4, name, [&]() -> NET_API_STATUS {
    if (!FindNamed(name)) {
      return NERR_UserNotFound;
    }
    RemoveUser(name);
    return NERR_Success;
  });
}

SIM(NET_API_STATUS, NetLocalGroupAddMembers, LPCWSTR server, LPCWSTR group, DWORD level, LPBYTE data, DWORD count) {
  return ForMembers(__func__ + 4, server, group, level, data, count,
                    [](const std::wstring& area, const std::wstring& member) -> NET_API_STATUS {
                      if (ReadText(area, member)) {
                        return ERROR_MEMBER_IN_ALIAS;
                      }
                      if (!FindUser(member)) {
                        return ERROR_NO_SUCH_MEMBER;
                      }
                      WriteText(area, member, L"");
                      return NERR_Success;
                    });
}

SIM(NET_API_STATUS, NetLocalGroupDelMembers, LPCWSTR server, LPCWSTR group, DWORD level, LPBYTE data, DWORD count) {
  return ForMembers(__func__ + 4, server, group, level, data, count,
                    [](const std::wstring& area, const std::wstring& member) -> NET_API_STATUS {
                      if (!ReadText(area, member)) {
                        return ERROR_MEMBER_NOT_IN_ALIAS;
                      }
                      ForgetValue(area, member);
                      return NERR_Success;
                    });
}

SIM(WINBOOL, LookupAccountSidW, LPCWSTR server, PSID sid, LPWSTR name, LPDWORD nameSize, LPWSTR domain,
    LPDWORD domainSize, PSID_NAME_USE use) {
  const std::wstring text = SidOf(sid);
  const auto* group = std::find_if(std::begin(kGroups), std::end(kGroups),
                                   [&text](const Group& candidate) { return candidate.sid == text; });
  const std::optional<User> user = text.starts_with(kMachineSid) ? FindUser(text) : std::nullopt;
  if (!user && group == std::end(kGroups)) {
    return ::LookupAccountSidW(server, sid, name, nameSize, domain, domainSize, use);
  }
  if (!user && !Exists(*group)) {
    SetLastError(ERROR_NONE_MAPPED);
    return FALSE;
  }
  const std::wstring found = user ? user->name : germanGroups.Get() != 0 ? group->german : group->english;
  const std::wstring home = user ? ComputerName() : germanGroups.Get() != 0 ? L"VORDEFINIERT" : L"BUILTIN";
  const bool nameFits = CopyOut(found, name, nameSize);
  if (!CopyOut(home, domain, domainSize) || !nameFits) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  *use = user ? SidTypeUser : SidTypeAlias;
  return TRUE;
}
