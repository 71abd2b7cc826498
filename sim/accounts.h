// Local users and groups of the simulated machine: areas "Users\<name>" and "Groups\<SID>" (a value for each member).
// Another process keeps them on Windows, so an account is there as a whole or not at all, whenever the caller ends: an
// area without the value "Sid", which is written last and deleted first, is no user.
// The built-in groups exist, Hyper-V Administrators only once somebody was added to it.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// What the SIDs of simulated accounts begin with.
inline constexpr wchar_t kMachineSid[] = L"S-1-5-21-397955417-626881126-188441444-";

struct User {
  std::wstring name, sid, password, fullName;
  DWORD flags = 0;            // UF_...
  std::uint64_t created = 0;  // 100 ns units since 1601, as the others
  std::uint64_t passwordSet = 0;
  std::uint64_t lastLogon = 0;  // 0: never
};

// By name or SID, in any case of letters.
std::optional<User> FindUser(const std::wstring& nameOrSid);
std::vector<std::wstring> UserNames();
inline std::wstring AccountPassword(const std::wstring& name) { return FindUser(name).value_or(User()).password; }
// Somebody else's account; its SID. The number at a SID's end is never given twice.
std::wstring AddUser(const std::wstring& name, const std::wstring& password = L"", DWORD flags = 1);
// Writes everything but name and SID.
void ChangeUser(const User& user);
void RemoveUser(const std::wstring& name);  // and its memberships; the profile stays

std::vector<std::wstring> GroupMembers(const std::wstring& groupSid);  // SIDs
void AddToGroup(const std::wstring& groupSid, const std::wstring& memberSid);
void SetGroupLanguage(const std::wstring& language);  // L"de", or L"" for English

// NetUserGetInfo answers with this status from now on, at this level (0: at all of them); status 0: as it should.
void FailAccountLookups(DWORD status, DWORD level = 0);

// The computer's name, which is the domain of its users.
std::wstring ComputerName();

}  // namespace sim
