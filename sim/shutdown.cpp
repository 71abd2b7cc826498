#include "sim/shutdown.h"

#include "sim/faults.h"

#include <atomic>
#include <cstdint>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Shutdown";
// In the token of this process, through AdjustTokenPrivileges: a bit for each number of a privilege.
std::atomic<std::uint64_t> enabled{0};

void NotePrivileges(const TOKEN_PRIVILEGES& privileges) {
  for (DWORD i = 0; i < privileges.PrivilegeCount; ++i) {
    const LUID_AND_ATTRIBUTES& each = privileges.Privileges[i];
    const std::uint64_t bit = std::uint64_t{1} << (each.Luid.LowPart % 64);
    enabled = (each.Attributes & SE_PRIVILEGE_ENABLED) != 0 ? enabled | bit : enabled & ~bit;
  }
}

}  // namespace

bool PrivilegeEnabled(const wchar_t* name) {
  LUID number{};
  return LookupPrivilegeValueW(nullptr, name, &number) && (enabled >> (number.LowPart % 64) & 1) != 0;
}

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
    enabled = 0;
  } else if (done && error == ERROR_SUCCESS && state != nullptr) {
    NotePrivileges(*state);
  }
  SetLastError(error);
  return done;
}

SIM(WINBOOL, InitiateSystemShutdownExW, LPWSTR machine, LPWSTR message, DWORD timeout, WINBOOL force, WINBOOL restart,
    DWORD reason) {
  return Change<BOOL>("InitiateSystemShutdownExW", L"", [&]() -> BOOL {
    if (machine != nullptr || timeout > MAX_SHUTDOWN_TIMEOUT) {
      Violation("InitiateSystemShutdownExW: another machine, or a time-out of %lu s", timeout);
    }
    DWORD error = PrivilegeEnabled(SE_SHUTDOWN_NAME) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    if (error == ERROR_SUCCESS && PendingShutdown()) {
      error = ERROR_SHUTDOWN_IN_PROGRESS;
    }
    if (const DWORD refusals = shutdownNotReady.Get(); refusals != 0) {
      shutdownNotReady.Set(refusals - 1);
      error = ERROR_NOT_READY;
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
