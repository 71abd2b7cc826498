#include "sim/sessions.h"

#include "sim/accounts.h"
#include "sim/buffers.h"
#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/faults.h"
#include "sim/profiles.h"
#include "sim/service_control.h"

#include <wtsapi32.h>

#include <algorithm>
#include <cwchar>
#include <memory>
#include <set>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Sessions";
constexpr DWORD kListener = 65536;  // waits for remote desktop connections

Buffers buffers;

std::wstring AreaOf(DWORD id) { return std::wstring(kArea) + L"\\" + std::to_wstring(id); }

// Those that somebody declared or signed in to, in the order of their numbers.
std::set<DWORD> SessionIds() {
  std::set<DWORD> ids;
  for (const std::wstring& name : AreaNames(kArea)) {
    ids.insert(std::wcstoul(name.c_str(), nullptr, 10));
  }
  return ids;
}

// Whose the session is, though the account may be gone by now: noted at the sign-in, or else found by its name.
std::wstring SidOf(DWORD id) {
  const std::wstring area = AreaOf(id);
  const bool local = ReadText(area, L"Domain") == ComputerName();
  const std::wstring user = ReadText(area, L"User").value_or(L"");
  return ReadText(area, L"Sid").value_or(local && !user.empty() ? FindUser(user).value_or(User()).sid : L"");
}

// A sign-in at the console changes the name that automatic sign-in goes by, whoever's that was ("Turn on automatic
// logon in Windows", KB 324737: "AutoAdminLogon may fail"), and the domain with it.
void NoteLastUser(const std::wstring& user) {
  constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
  SetRegistryText(kWinlogon, L"DefaultUserName", user);
  SetRegistryText(kWinlogon, L"DefaultDomainName", ComputerName());
}

// The session is over as far as anybody can see.
bool Close(DWORD session) {
  const bool open = ReadText(AreaOf(session), L"User").has_value();
  const std::wstring sid = SidOf(session);
  EndSession(session);
  if (!sid.empty() && SessionOf(sid) == 0 && HiveLoaded(sid)) {
    UnloadHive(sid);
  }
  return open;
}

// What is left of a sign-out once WTSLogoffSession has returned.
struct Leaving {
  DWORD session;
  DWORD milliseconds;  // 0: it is closed, the service is to be told
};

DWORD WINAPI Leave(void* argument) {
  const std::unique_ptr<Leaving> leaving(static_cast<Leaving*>(argument));
  if (leaving->milliseconds != 0) {
    sim_Sleep(leaving->milliseconds);
    SignOut(leaving->session);
  } else {
    DeliverSessionChange(WTS_SESSION_LOGOFF, leaving->session);
  }
  return 0;
}

}  // namespace

void SetSession(DWORD id, const std::wstring& user, const std::wstring& domain) {
  WriteText(AreaOf(id), L"User", user);
  WriteText(AreaOf(id), L"Domain", domain);
}

void EndSession(DWORD id) { ForgetArea(AreaOf(id)); }

DWORD SessionOf(const std::wstring& sid) {
  for (const DWORD id : SessionIds()) {
    if (!sid.empty() && SidOf(id) == sid) {
      return id;
    }
  }
  return 0;
}

DWORD SignIn(const std::wstring& user, DWORD session) {
  std::optional<User> account = FindUser(user);
  if (!account) {
    return 0;
  }
  const DWORD next = ReadNumber(L"", L"NextSession").value_or(1);
  const DWORD id = session != 0 ? session : next;
  WriteNumber(L"", L"NextSession", std::max(next, id + 1));
  MakeProfile(account->sid, account->name);
  if (!LoadUserHive(account->sid)) {
    return 0;
  }
  account->lastLogon = UtcTime();
  ChangeUser(*account);
  SetSession(id, account->name, ComputerName());
  WriteText(AreaOf(id), L"Sid", account->sid);
  NoteLastUser(account->name);
  DeliverSessionChange(WTS_SESSION_LOGON, id);
  return id;
}

void SignOut(DWORD session) {
  if (Close(session)) {
    DeliverSessionChange(WTS_SESSION_LOGOFF, session);
  }
}

void MakeStubborn(DWORD session, DWORD milliseconds) { WriteNumber(AreaOf(session), L"StaysFor", milliseconds); }

void EndAllSessions() {
  for (const DWORD id : SessionIds()) {
    Close(id);
  }
  WriteNumber(L"", L"NextSession", 1);
}

}  // namespace sim

using namespace sim;

SIM(WINBOOL, WTSEnumerateSessionsW, HANDLE server, DWORD reserved, DWORD version, PWTS_SESSION_INFOW* result,
    DWORD* count) {
  if (server != WTS_CURRENT_SERVER_HANDLE || reserved != 0 || version != 1 || result == nullptr || count == nullptr) {
    Violation("WTSEnumerateSessionsW: another server, version %lu, or a pointer is null", version);
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (const DWORD error = sessionListError.Get(); error != 0) {
    SetLastError(error);
    return FALSE;
  }
  std::set<DWORD> ids = SessionIds();
  ids.insert(0);
  if (AreaExists(kArea)) {
    ids.insert(kListener);
  }
  constexpr std::size_t kNameLength = 16;
  *result = static_cast<PWTS_SESSION_INFOW>(
      buffers.New(ids.size() * (sizeof(WTS_SESSION_INFOW) + kNameLength * sizeof(wchar_t))));
  *count = 0;
  wchar_t* name = reinterpret_cast<wchar_t*>(*result + ids.size());
  for (const DWORD id : ids) {
    const wchar_t* text = id == 0 ? L"Services" : id == kListener ? L"RDP-Tcp" : L"Console";
    const WTS_CONNECTSTATE_CLASS state = id == 0 ? WTSDisconnected : id == kListener ? WTSListen : WTSActive;
    (*result)[(*count)++] = {id, std::wcscpy(name, text), state};
    name += kNameLength;
  }
  return TRUE;
}

SIM(WINBOOL, WTSQuerySessionInformationW, HANDLE server, DWORD id, WTS_INFO_CLASS what, LPWSTR* buffer, DWORD* size) {
  DWORD own = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &own);
  if (!AreaExists(kArea) && (id == own || id == WTS_CURRENT_SESSION)) {
    return ::WTSQuerySessionInformationW(server, id, what, buffer, size);
  }
  if (server != WTS_CURRENT_SERVER_HANDLE || (what != WTSUserName && what != WTSDomainName) || buffer == nullptr ||
      size == nullptr) {
    Violation("WTSQuerySessionInformationW: class %d of a session is not simulated, or a pointer is null", what);
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  id = id == WTS_CURRENT_SESSION ? own : id;
  const auto known = ReadText(AreaOf(id), what == WTSUserName ? L"User" : L"Domain");
  if (!known && id != 0 && id != kListener) {
    SetLastError(ERROR_CTX_WINSTATION_NOT_FOUND);
    return FALSE;
  }
  const std::wstring text = known.value_or(L"");
  *size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
  *buffer = static_cast<wchar_t*>(buffers.New(*size));
  std::copy_n(text.c_str(), text.size(), *buffer);
  return TRUE;
}

SIM(WINBOOL, WTSLogoffSession, HANDLE server, DWORD id, BOOL wait) {
  if (server != WTS_CURRENT_SERVER_HANDLE) {
    Violation("WTSLogoffSession: another server");
  }
  return Change<BOOL>(__func__ + 4, std::to_wstring(id), [&]() -> BOOL {
    const DWORD stays = ReadNumber(AreaOf(id), L"StaysFor").value_or(0);
    if (!ReadText(AreaOf(id), L"User")) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return FALSE;
    }
    if (stays == 0) {
      Close(id);
    }
    if (stays == 0 && !ServiceListens()) {
      return TRUE;
    }
    HANDLE thread = sim_CreateThread(nullptr, 0, Leave, new Leaving{id, stays}, 0, nullptr);
    if (wait && stays != 0) {
      Wait(thread, INFINITE);
    }
    CloseHandle(thread);
    return TRUE;
  });
}

SIM(void, WTSFreeMemory, PVOID memory) {
  if (!buffers.Free(memory)) {
    ::WTSFreeMemory(memory);
  }
}
