#include <winsock2.h>
#include <ws2tcpip.h>

#include "sim/time_service.h"

#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/service_control.h"

#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <string_view>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"TimeService";
DWORD granted = 0;

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

void NeedRight(DWORD right, const char* function) {
  if ((granted & right) == 0) {
    Violation("%s: the handle of W32Time was opened without the right 0x%lx", function, right);
  }
}

DWORD State() {
  if (timeService.running.Get() == 0) {
    return SERVICE_STOPPED;
  }
  const auto since = std::wcstoull(ReadText(kArea, L"StartedAt").value_or(L"0").c_str(), nullptr, 10);
  return ClockNow() >= since + timeService.startDelay.Get() ? SERVICE_RUNNING : SERVICE_START_PENDING;
}

// The service attempts to synchronise.
void Attempt() {
  if (const DWORD empty = timeService.empty.Get(); empty != 0) {
    timeService.empty.Set(empty - 1);
    return;
  }
  const auto behind = static_cast<std::int32_t>(timeService.behind.Get());
  const DWORD gradual =
      RegistryNumber(L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Config", L"MaxAllowedPhaseOffset").value_or(1);
  if (std::abs(std::int64_t{behind}) > std::int64_t{gradual} * 1'000) {
    StepSystemTime(behind);
    timeService.behind.Set(0);
  }
}

// [MS-W32T] 3.2.5.1: with a wait it returns when the attempt is over, "regardless of the status"; without
// TimeSyncFlag_ReturnResult 0 is not the outcome.
DWORD WINAPI SyncNow(const wchar_t* computer, DWORD wait, DWORD flags) {
  if (computer != nullptr || wait != 1 || flags != 1) {
    Violation("W32TimeSyncNow: another computer, wait %lu, flags %lu", wait, flags);
  }
  timeService.syncs.Increment();
  if (timeService.syncHangs.Get() != 0) {
    Wait(CreateEventW(nullptr, TRUE, FALSE, nullptr), INFINITE);
  }
  if (State() != SERVICE_RUNNING) {
    return ERROR_SERVICE_NOT_ACTIVE;
  }
  if (timeService.syncResult.Get() == 0) {
    Attempt();
  }
  return timeService.syncResult.Get();
}

}  // namespace

void SetHost(const std::wstring& name, const std::wstring& address, DWORD port) {
  WriteText(L"Hosts\\" + name, L"Address", address);
  WriteNumber(L"Hosts\\" + name, L"Port", port);
}

BOOL StartTimeService() {
  NeedRight(SERVICE_START, "StartServiceW");
  if (const DWORD error = timeService.startError.Get(); error != 0) {
    return Fail(error);
  }
  if (timeService.start.Get() == SERVICE_DISABLED) {
    return Fail(ERROR_SERVICE_DISABLED);
  }
  if (State() != SERVICE_STOPPED) {
    return Fail(ERROR_SERVICE_ALREADY_RUNNING);
  }
  WriteText(kArea, L"StartedAt", std::to_wstring(ClockNow()));
  timeService.running.Set(1);
  // StartServiceW: after 30 s it gives up with ERROR_SERVICE_REQUEST_TIMEOUT, though the process was started.
  const DWORD givenUp = timeService.startGivenUp.Get();
  return givenUp == 0 || Fail(givenUp);
}

BOOL ConfigureTimeService(DWORD start) {
  NeedRight(SERVICE_CHANGE_CONFIG, "ChangeServiceConfigW");
  timeService.start.Set(start);
  return TRUE;
}

}  // namespace sim

using namespace sim;

SIM(SC_HANDLE, OpenServiceW, SC_HANDLE manager, LPCWSTR name, DWORD access) {
  if (_wcsicmp(name, L"W32Time") != 0) {
    const SC_HANDLE hosted = OpenHosted(name, access);
    return hosted != nullptr ? hosted : ::OpenServiceW(manager, name, access);
  }
  granted = access;
  return timeService.noService.Get() == 0 ? kTimeServiceHandle : (Fail(ERROR_SERVICE_DOES_NOT_EXIST), nullptr);
}

SIM(WINBOOL, CloseServiceHandle, SC_HANDLE handle) {
  return handle == kTimeServiceHandle || handle == kHostedService ? TRUE : ::CloseServiceHandle(handle);
}

SIM(WINBOOL, QueryServiceStatus, SC_HANDLE service, LPSERVICE_STATUS status) {
  if (service != kTimeServiceHandle) {
    return ::QueryServiceStatus(service, status);
  }
  NeedRight(SERVICE_QUERY_STATUS, "QueryServiceStatus");
  *status = {};
  status->dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
  status->dwCurrentState = State();
  return TRUE;
}

SIM(WINBOOL, QueryServiceConfigW, SC_HANDLE service, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) {
  if (service != kTimeServiceHandle) {
    return ::QueryServiceConfigW(service, config, size, needed);
  }
  NeedRight(SERVICE_QUERY_CONFIG, "QueryServiceConfigW");
  constexpr DWORD kWithItsTexts = sizeof(QUERY_SERVICE_CONFIGW) + 200;
  if (size < kWithItsTexts) {
    *needed = kWithItsTexts;
    return Fail(ERROR_INSUFFICIENT_BUFFER);
  }
  *config = {};
  config->dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
  config->dwStartType = timeService.start.Get();
  *needed = 0;
  return TRUE;
}

SIM(HMODULE, LoadLibraryExW, LPCWSTR name, HANDLE file, DWORD flags) {
  if (_wcsicmp(name, L"w32time.dll") != 0) {
    return ::LoadLibraryExW(name, file, flags);
  }
  if (flags != LOAD_LIBRARY_SEARCH_SYSTEM32 || file != nullptr) {
    Violation("LoadLibraryExW: w32time.dll is looked for outside of the system directory (0x%lx)", flags);
  }
  return timeService.noLibrary.Get() == 0 ? ::LoadLibraryW(L"kernel32.dll") : (Fail(ERROR_MOD_NOT_FOUND), nullptr);
}

SIM(FARPROC, GetProcAddress, HMODULE library, LPCSTR name) {
  return std::string_view(name) == "W32TimeSyncNow" ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&SyncNow))
                                                    : ::GetProcAddress(library, name);
}

SIM(WINBOOL, CreateProcessW, LPCWSTR program, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
    LPSECURITY_ATTRIBUTES thread, WINBOOL inherit, DWORD flags, LPVOID environment, LPCWSTR folder,
    LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) {
  const std::wstring_view path = program != nullptr ? program : L"";
  if (!path.ends_with(L"\\w32tm.exe")) {
    return ::CreateProcessW(program, commandLine, process, thread, inherit, flags, environment, folder, startup,
                            started);
  }
  if (commandLine != L"\"" + std::wstring(path) + L"\" /resync" || flags != CREATE_NO_WINDOW || inherit) {
    Violation("CreateProcessW: %s with flags 0x%lx", Narrow(commandLine).c_str(), flags);
  }
  timeService.w32tmRuns.Increment();
  const auto exitCode = timeService.w32tm.Read();
  if (!exitCode) {
    return Fail(ERROR_FILE_NOT_FOUND);
  }
  if (*exitCode == 0) {
    Attempt();
  }
  // A program that ends with that code, or one that never begins.
  std::wstring stand = L"cmd.exe /c exit " + std::to_wstring(*exitCode);
  return ::CreateProcessW(nullptr, stand.data(), nullptr, nullptr, FALSE,
                          CREATE_NO_WINDOW | (*exitCode == STILL_ACTIVE ? CREATE_SUSPENDED : 0), nullptr, nullptr,
                          startup, started);
}

SIM(int, GetAddrInfoW, PCWSTR name, PCWSTR service, const ADDRINFOW* hints, PADDRINFOW* results) {
  const std::wstring area = std::wstring(L"Hosts\\") + name;
  const auto address = ReadText(area, L"Address");
  IN_ADDR digits;
  if (!address && InetPtonW(AF_INET, name, &digits) == 1) {
    return ::GetAddrInfoW(name, service, hints, results);
  }
  if (!address) {
    return WSAHOST_NOT_FOUND;
  }
  if (wcscmp(service, L"123") != 0 || hints->ai_family != AF_INET || hints->ai_socktype != SOCK_DGRAM) {
    Violation("GetAddrInfoW: not UDP over IPv4 to port 123");
  }
  return ::GetAddrInfoW(address->c_str(), std::to_wstring(ReadNumber(area, L"Port").value_or(123)).c_str(), hints,
                        results);
}
