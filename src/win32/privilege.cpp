#include "win32/privilege.h"

#include "win32/handle.h"

namespace kiosk::win32 {

bool EnablePrivilege(const wchar_t* name) noexcept {
  KernelHandle token;
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put()) == 0 ||
      LookupPrivilegeValueW(nullptr, name, &privileges.Privileges[0].Luid) == 0 ||
      AdjustTokenPrivileges(token.Get(), FALSE, &privileges, 0, nullptr, nullptr) == 0) {
    return false;
  }
  // The call succeeds, and says so here, when the token lacks the privilege.
  return GetLastError() == ERROR_SUCCESS;
}

}  // namespace kiosk::win32
