#include "sim/callers.h"

#include "sim/accounts.h"
#include "sim/machine.h"
#include "sim/seam.h"
#include "sim/sessions.h"

#include <sddl.h>

namespace sim {
namespace {

struct Identity {
  wchar_t sid[192];  // empty: nobody declared
  bool interactive;
};

// Whom this thread stood for last, and the token that it opened of that client. Without destructors: those of
// thread-local objects do not run safely on threads that the C++ library did not start.
thread_local Identity impersonated{};
thread_local HANDLE tokenOpened = nullptr;

std::wstring AreaOf(DWORD processId) { return L"Callers\\" + std::to_wstring(processId); }

// The area that declares the client; empty when none does.
std::wstring DeclarationOf(HANDLE pipe) {
  ULONG process = 0;
  for (const DWORD id : {GetNamedPipeClientProcessId(pipe, &process) ? process : 0, 0UL}) {
    if (AreaExists(AreaOf(id))) {
      return AreaOf(id);
    }
  }
  return {};
}

// The user's SID in the area; empty when it names nobody.
std::wstring SidIn(const std::wstring& area) {
  const std::wstring user = ReadText(area, L"User").value_or(L"");
  return user.starts_with(L"S-") ? user : FindUser(user).value_or(User()).sid;
}

}  // namespace

void SetPipeCaller(const PipeCaller& caller, DWORD processId) {
  const std::wstring area = AreaOf(processId);
  ForgetArea(area);
  WriteText(area, L"User", caller.user);
  WriteNumber(area, L"Interactive", caller.interactive ? 1 : 0);
  if (caller.session) {
    WriteNumber(area, L"Session", *caller.session);
  }
}

void SetPipeClientSession(DWORD session, DWORD processId) { WriteNumber(AreaOf(processId), L"Session", session); }

}  // namespace sim

using namespace sim;

SIM(WINBOOL, GetNamedPipeClientSessionId, HANDLE pipe, PULONG session) {
  const std::wstring area = DeclarationOf(pipe);
  const auto declared = ReadNumber(area, L"Session");
  const DWORD signedIn = declared || area.empty() ? 0 : SessionOf(SidIn(area));
  if (area.empty() || (!declared && signedIn == 0)) {
    return ::GetNamedPipeClientSessionId(pipe, session);
  }
  *session = declared.value_or(signedIn);
  return TRUE;
}

SIM(WINBOOL, ImpersonateNamedPipeClient, HANDLE pipe) {
  const std::wstring area = DeclarationOf(pipe);
  const std::wstring sid = area.empty() ? L"" : SidIn(area);
  impersonated = {};
  tokenOpened = nullptr;
  sid.copy(impersonated.sid, std::size(impersonated.sid) - 1);
  impersonated.interactive = ReadNumber(area, L"Interactive").value_or(1) != 0;
  return ::ImpersonateNamedPipeClient(pipe);
}

SIM(WINBOOL, OpenThreadToken, HANDLE thread, DWORD access, WINBOOL asSelf, PHANDLE token) {
  const BOOL opened = ::OpenThreadToken(thread, access, asSelf, token);
  tokenOpened = opened ? *token : nullptr;
  return opened;
}

SIM(WINBOOL, OpenProcessToken, HANDLE process, DWORD access, PHANDLE token) {
  const BOOL opened = ::OpenProcessToken(process, access, token);
  if (opened && *token == tokenOpened) {
    tokenOpened = nullptr;  // the number of a handle that was closed
  }
  return opened;
}

SIM(WINBOOL, GetTokenInformation, HANDLE token, TOKEN_INFORMATION_CLASS what, LPVOID information, DWORD size,
    PDWORD needed) {
  if (impersonated.sid[0] == L'\0' || token != tokenOpened || (what != TokenUser && what != TokenGroups)) {
    return ::GetTokenInformation(token, what, information, size, needed);
  }
  // One SID behind its record. Whoever does not sit at the computer holds the group of network logons instead.
  const std::wstring text = what == TokenUser ? impersonated.sid : impersonated.interactive ? L"S-1-5-4" : L"S-1-5-2";
  PSID sid = nullptr;
  if (!ConvertStringSidToSidW(text.c_str(), &sid)) {
    Violation("%s, the user of a declared caller, is not a SID", Narrow(text).c_str());
    return FALSE;
  }
  const DWORD record = what == TokenUser ? sizeof(TOKEN_USER) : sizeof(TOKEN_GROUPS);
  *needed = record + GetLengthSid(sid);
  const bool fits = information != nullptr && size >= *needed;
  if (fits) {
    PSID copy = static_cast<BYTE*>(information) + record;
    CopySid(GetLengthSid(sid), copy, sid);
    if (what == TokenUser) {
      static_cast<TOKEN_USER*>(information)->User = {copy, 0};
    } else {
      *static_cast<TOKEN_GROUPS*>(information) = {1, {{copy, SE_GROUP_ENABLED | SE_GROUP_MANDATORY}}};
    }
  }
  LocalFree(sid);
  SetLastError(fits ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
  return fits;
}
