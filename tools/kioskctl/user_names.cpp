#include "redact.h"

#include "state/registry.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <iterator>

namespace kioskctl {
namespace {

using kiosk::win32::EqualIgnoringCase;

constexpr wchar_t kProfiles[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
constexpr wchar_t kLogonUi[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Authentication\\LogonUI";

// The kiosk account with its full name, and accounts that every Windows has.
constexpr const wchar_t* kNobodys[] = {L"NorvaneKiosk",       L"Norvane", L"Administrator", L"Guest", L"DefaultAccount",
                                       L"WDAGUtilityAccount", L"SYSTEM"};

using Names = std::vector<std::wstring>;

void Add(Names& names, std::wstring name) {
  name.erase(0, name.rfind(L'\\') + 1);  // the domain's
  const auto isName = [&name](const std::wstring& other) { return EqualIgnoringCase(other, name); };
  if (!name.empty() && std::none_of(std::begin(kNobodys), std::end(kNobodys), isName) &&
      std::none_of(names.begin(), names.end(), isName)) {
    names.push_back(std::move(name));
  }
}

void AddAccounts(Names& names) {
  BYTE* raw = nullptr;
  DWORD count = 0;
  DWORD total = 0;
  const NET_API_STATUS status = NetUserEnum(nullptr, 20, 0, &raw, MAX_PREFERRED_LENGTH, &count, &total, nullptr);
  const kiosk::win32::NetBuffer accounts(raw);
  const auto* each = static_cast<const USER_INFO_20*>(accounts.Get());
  for (DWORD i = 0; each != nullptr && status == NERR_Success && i < count; ++i, ++each) {
    Add(names, each->usri20_name);
    Add(names, each->usri20_full_name != nullptr ? each->usri20_full_name : L"");
  }
}

std::wstring AccountOf(const wchar_t* sidText) {
  const kiosk::win32::LocalMemory sid = kiosk::win32::ParseSid(sidText);
  wchar_t name[257];
  wchar_t domain[257];
  DWORD nameSize = std::size(name);
  DWORD domainSize = std::size(domain);
  SID_NAME_USE use{};
  return sid && LookupAccountSidW(nullptr, sid.Get(), name, &nameSize, domain, &domainSize, &use) != 0 ? name : L"";
}

// Under which name a profile's account is known, and under which it was when the folder was made.
void AddProfiles(Names& names) {
  kiosk::win32::RegistryKey key;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, kProfiles, 0, KEY_ENUMERATE_SUB_KEYS, key.Put());
  wchar_t sid[256];
  for (DWORD index = 0, size = std::size(sid);
       RegEnumKeyExW(key.Get(), index, sid, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++index, size = std::size(sid)) {
    const std::wstring_view text = sid;
    if (text.starts_with(L"S-1-5-21-") || text.starts_with(L"S-1-12-1-")) {
      Add(names, AccountOf(sid));
      const std::wstring profile = std::wstring(kProfiles) + L"\\" + sid;
      Add(names, kiosk::state::ReadString(profile.c_str(), L"ProfileImagePath").value_or(L""));
    }
  }
}

void AddSessions(Names& names) {
  WTS_SESSION_INFOW* raw = nullptr;
  DWORD count = 0;
  if (WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &raw, &count) == 0) {
    return;
  }
  const kiosk::win32::WtsMemory sessions(raw);
  for (DWORD i = 0; i < count; ++i) {
    wchar_t* user = nullptr;
    DWORD size = 0;
    if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, raw[i].SessionId, WTSUserName, &user, &size) != 0) {
      const kiosk::win32::WtsMemory owner(user);
      Add(names, user);
    }
  }
}

}  // namespace

std::vector<std::wstring> NamesOfUsers() {
  Names names;
  AddAccounts(names);
  AddProfiles(names);
  AddSessions(names);
  for (const wchar_t* value : {L"DefaultUserName", L"LastUsedUsername"}) {
    Add(names, kiosk::state::ReadString(kWinlogon, value).value_or(L""));
  }
  for (const wchar_t* value : {L"LastLoggedOnUser", L"LastLoggedOnSAMUser", L"LastLoggedOnDisplayName"}) {
    Add(names, kiosk::state::ReadString(kLogonUi, value).value_or(L""));
  }
  wchar_t own[257];
  DWORD size = std::size(own);
  Add(names, GetUserNameW(own, &size) != 0 ? own : L"");
  std::stable_sort(names.begin(), names.end(),
                   [](const std::wstring& left, const std::wstring& right) { return left.size() > right.size(); });
  return names;
}

}  // namespace kioskctl
