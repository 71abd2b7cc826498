// Sessions and their users.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"

#include <userenv.h>
#include <wtsapi32.h>

namespace contract {
namespace {

constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";

void ListsAreTold(Asked& asked) {
  WTS_SESSION_INFOW* sessions = nullptr;
  DWORD count = 0;
  asked.True("WTSEnumerateSessionsW", WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count) != 0);
  const AtEnd free([&] { WTSFreeMemory(sessions); });
  bool services = false;
  for (DWORD i = 0; i < count; ++i) {
    services = services || sessions[i].SessionId == 0;
  }
  asked.KnownWrong(Platform::kWine, "Wine lists no session of services");
  asked.True("the session of services is in it", services);
}

void UnknownSessionsAreErrors(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine tells of any session");
  wchar_t* text = nullptr;
  DWORD size = 0;
  constexpr DWORD kNone = 4711;
  asked.Fails("its user", WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, kNone, WTSUserName, &text, &size) != 0,
              {ERROR_FILE_NOT_FOUND, ERROR_CTX_WINSTATION_NOT_FOUND});
  asked.Fails("signing it out", WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, kNone, FALSE) != 0,
              {ERROR_FILE_NOT_FOUND, ERROR_CTX_WINSTATION_NOT_FOUND});
}

std::wstring WinlogonText(const wchar_t* name) {
  wchar_t text[256]{};
  DWORD size = sizeof(text);
  RegGetValueW(HKEY_LOCAL_MACHINE, kWinlogon, name, RRF_RT_REG_SZ, nullptr, text, &size);
  return text;
}

void SetWinlogonText(const wchar_t* name, const std::wstring& text) {
  if (text.empty()) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogon, name);
  } else {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kWinlogon, name, REG_SZ, text.c_str(),
                    static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  }
}

// "Turn on automatic logon in Windows" (KB 324737): whoever signs in at the console becomes the default user.
void ConsoleUsersAreNoted(Asked& asked) {
  const LocalUser user;
  const std::wstring name = WinlogonText(L"DefaultUserName");
  const std::wstring domain = WinlogonText(L"DefaultDomainName");
  const DWORD session = SignInAtConsole(LocalUser::kName);
  const AtEnd back([&] {
    WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, session, TRUE);
    DeleteProfileW(user.Sid().c_str(), nullptr, nullptr);
    SetWinlogonText(L"DefaultUserName", name);
    SetWinlogonText(L"DefaultDomainName", domain);
  });
  asked.Same("DefaultUserName", WinlogonText(L"DefaultUserName"), LocalUser::kName);
  wchar_t* text = nullptr;
  DWORD size = 0;
  asked.True("WTSQuerySessionInformationW",
             WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, WTSUserName, &text, &size) != 0);
  asked.Same("the session's user", text != nullptr ? text : L"", LocalUser::kName);
  WTSFreeMemory(text);
  asked.True("WTSLogoffSession", WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, session, FALSE) != 0);
}

constexpr Case kCases[] = {
    {"list", "the list of sessions has that of services", ListsAreTold},
    {"unknown", "a session that is not there is an error", UnknownSessionsAreErrors},
    {"console", "who signs in at the console becomes the default user", ConsoleUsersAreNoted},
};

}  // namespace

extern const Group kSessions;
const Group kSessions{"sessions", kCases};

}  // namespace contract
