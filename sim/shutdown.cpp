#include "sim/shutdown.h"

#include "sim/faults.h"
#include "sim/machine.h"

#include <atomic>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Shutdown";
// In the token of this process, through AdjustTokenPrivileges.
std::atomic<bool> privileged{false};

void NotePrivileges(const TOKEN_PRIVILEGES& privileges) {
  LUID shutdown{};
  LookupPrivilegeValueW(nullptr, SE_SHUTDOWN_NAME, &shutdown);
  for (DWORD i = 0; i < privileges.PrivilegeCount; ++i) {
    const LUID_AND_ATTRIBUTES& each = privileges.Privileges[i];
    if (each.Luid.LowPart == shutdown.LowPart && each.Luid.HighPart == shutdown.HighPart) {
      privileged = (each.Attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
  }
}

}  // namespace

std::optional<ShutdownRequest> PendingShutdown() {
  const auto message = ReadText(kArea, L"Message");
  if (!message) {
    return std::nullopt;
  }
  const auto number = [](const wchar_t* name) { return ReadNumber(kArea, name).value_or(0); };
  return ShutdownRequest{*message, number(L"Timeout"), number(L"ForceAppsClosed") != 0, number(L"Restart") != 0,
                         number(L"Reason")};
}

void ForgetShutdown() { ForgetArea(kArea); }

}  // namespace sim

using namespace sim;

SIM(WINBOOL, AdjustTokenPrivileges, HANDLE token, WINBOOL disableAll, PTOKEN_PRIVILEGES state, DWORD size,
    PTOKEN_PRIVILEGES previous, PDWORD needed) {
  const BOOL done = ::AdjustTokenPrivileges(token, disableAll, state, size, previous, needed);
  const DWORD error = GetLastError();
  if (done && disableAll) {
    privileged = false;
  } else if (done && error == ERROR_SUCCESS && state != nullptr) {
    NotePrivileges(*state);
  }
  SetLastError(error);
  return done;
}

SIM(WINBOOL, InitiateSystemShutdownExW, LPWSTR machine, LPWSTR message, DWORD timeout, WINBOOL force, WINBOOL restart,
    DWORD reason) {
  return Change<BOOL>(
      "InitiateSystemShutdownExW", [] { return std::wstring(); },
      [&]() -> BOOL {
        if (machine != nullptr || timeout > MAX_SHUTDOWN_TIMEOUT) {
          Violation("InitiateSystemShutdownExW: another machine, or a time-out of %lu s", timeout);
        }
        DWORD error = privileged ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
        if (error == ERROR_SUCCESS && PendingShutdown()) {
          error = ERROR_SHUTDOWN_IN_PROGRESS;
        }
        if (error != ERROR_SUCCESS) {
          SetLastError(error);
          return FALSE;
        }
        WriteText(kArea, L"Message", message != nullptr ? message : L"");
        WriteNumber(kArea, L"Timeout", timeout);
        WriteNumber(kArea, L"ForceAppsClosed", force != FALSE);
        WriteNumber(kArea, L"Restart", restart != FALSE);
        WriteNumber(kArea, L"Reason", reason);
        return TRUE;
      });
}
