#include "state/os_version.h"

#include "win32/winapi.h"

namespace kiosk::state {

std::string OsVersionText() {
  using RtlGetVersionFunction = LONG(WINAPI*)(RTL_OSVERSIONINFOW*);
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  const auto getVersion =
      ntdll == nullptr
          ? nullptr
          : reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
  RTL_OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof(version);
  if (getVersion == nullptr || getVersion(&version) != 0) {
    return "Windows";
  }
  return std::to_string(version.dwMajorVersion) + '.' + std::to_string(version.dwMinorVersion) + '.' +
         std::to_string(version.dwBuildNumber);
}

}  // namespace kiosk::state
