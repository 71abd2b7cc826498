// Who is at the other end of the service's pipe. The client of each process, or of every process, can be declared
// (area "Callers\<process id>", 0: every other): text "User" (a SID or the name of a simulated account), numbers
// "Interactive" (1 when absent) and "Session" (when absent, the one the account is signed in to). Without a user the
// token is the real one.
#pragma once

#include "win32/winapi.h"

#include <optional>
#include <string>

namespace sim {

inline constexpr wchar_t kSystemSid[] = L"S-1-5-18";

struct PipeCaller {
  std::wstring user;
  bool interactive = true;  // false: a network logon, a service
  std::optional<DWORD> session = {};
};

void SetPipeCaller(const PipeCaller& caller, DWORD processId = 0);
// The session alone.
void SetPipeClientSession(DWORD session, DWORD processId = 0);

}  // namespace sim
