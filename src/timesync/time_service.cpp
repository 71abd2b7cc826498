#include "timesync/time_service.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/grow.h"
#include "win32/owners.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <memory>
#include <string>
#include <vector>

namespace kiosk::timesync {
namespace {

constexpr wchar_t kTimeService[] = L"W32Time";
constexpr DWORD kStartWait = 15'000;
constexpr DWORD kStartPoll = 100;
constexpr DWORD kSyncCallWait = 30'000;
constexpr DWORD kProgramWait = 20'000;
// The arguments of W32TimeSync in [MS-W32T]. Only with TimeSyncFlag_ReturnResult (2) would the result be the outcome.
constexpr DWORD kSyncWait = 1;   // come back when the attempt is over, however it ended
constexpr DWORD kSyncFlags = 1;  // TimeSyncFlag_HardResync: throw the time samples away and get new ones

DWORD StateOf(SC_HANDLE service) {
  SERVICE_STATUS status{};
  return QueryServiceStatus(service, &status) ? status.dwCurrentState : 0;
}

bool IsDisabled(SC_HANDLE service) {
  std::vector<BYTE> buffer;
  const DWORD error = win32::CallGrowing(buffer, [&](BYTE* out, DWORD* size) -> DWORD {
    const DWORD room = *size;  // which the call may overwrite with 0 when it was enough
    if (!QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(out), room, size)) {
      return GetLastError();
    }
    *size = room;
    return ERROR_SUCCESS;
  });
  return error == ERROR_SUCCESS && buffer.size() >= sizeof(QUERY_SERVICE_CONFIGW) &&
         reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->dwStartType == SERVICE_DISABLED;
}

void Enable(SC_HANDLE service) {
  if (ChangeServiceConfigW(service, SERVICE_NO_CHANGE, SERVICE_DEMAND_START, SERVICE_NO_CHANGE, nullptr, nullptr,
                           nullptr, nullptr, nullptr, nullptr, nullptr)) {
    log::Log(log::kWarn, log::kKiosk, "time: the Windows Time service was disabled; set to manual start");
  } else {
    log::Log(log::kError, log::kKiosk, "time: cannot enable the Windows Time service (%lu)", GetLastError());
  }
}

bool WaitUntilItRuns(SC_HANDLE service, const win32::Deadline& deadline) {
  while (StateOf(service) != SERVICE_RUNNING) {
    if (deadline.Passed() || win32::WaitOrStop(nullptr, kStartPoll) == win32::WaitResult::kStop) {
      return false;
    }
  }
  log::Log(log::kNotice, log::kKiosk, "time: started the Windows Time service");
  return true;
}

// The call has no time limit of its own, so a thread makes it, which may be left behind with the library it runs in.
DWORD SyncNowResult() {
  auto library =
      std::make_shared<win32::Library>(LoadLibraryExW(L"w32time.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
  using SyncNow = DWORD(WINAPI*)(const wchar_t* computer, DWORD wait, DWORD flags);
  const auto syncNow =
      *library ? reinterpret_cast<SyncNow>(reinterpret_cast<void*>(GetProcAddress(library->Get(), "W32TimeSyncNow")))
               : nullptr;
  if (syncNow == nullptr) {
    return ERROR_PROC_NOT_FOUND;
  }
  const auto result = std::make_shared<DWORD>(ERROR_TIMEOUT);
  const win32::KernelHandle thread = win32::StartThread([library = std::move(library), result, syncNow]() noexcept {
    *result = syncNow(nullptr, kSyncWait, kSyncFlags);
  });
  if (!thread) {
    return GetLastError();
  }
  switch (win32::WaitOrStop(thread.Get(), kSyncCallWait)) {
    case win32::WaitResult::kSignaled:
      return *result;
    case win32::WaitResult::kStop:
      return ERROR_CANCELLED;
    default:
      return ERROR_TIMEOUT;
  }
}

std::wstring SystemFolder() {
  std::wstring folder(MAX_PATH, L'\0');
  const UINT length = GetSystemDirectoryW(folder.data(), MAX_PATH);
  folder.resize(length < MAX_PATH ? length : 0);
  return folder;
}

}  // namespace

bool RunTimeService() {
  const win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) {
    log::Log(log::kError, log::kKiosk, "time: cannot open the service manager (%lu)", GetLastError());
    return false;
  }
  const win32::ServiceHandle service(
      OpenServiceW(manager.Get(), kTimeService,
                   SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START));
  if (!service) {
    log::Log(log::kError, log::kKiosk, "time: cannot open the Windows Time service (%lu)", GetLastError());
    return false;
  }
  if (StateOf(service.Get()) == SERVICE_RUNNING) {
    return true;
  }
  if (IsDisabled(service.Get())) {
    Enable(service.Get());
  }
  // The start may fail and the service come up all the same, when the service manager lost patience with it.
  const win32::Deadline deadline(kStartWait);
  if (!StartServiceW(service.Get(), 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
    log::Log(log::kError, log::kKiosk, "time: cannot start the Windows Time service (%lu)", GetLastError());
  }
  return WaitUntilItRuns(service.Get(), deadline);
}

bool CallSyncNow() {
  const DWORD result = SyncNowResult();
  if (result != 0) {
    log::Log(log::kWarn, log::kKiosk, "time: W32TimeSyncNow gave %lu; using w32tm", result);
  }
  return result == 0;
}

bool RunW32tm() {
  const std::wstring folder = SystemFolder();
  if (folder.empty()) {  // a bare name would be looked for in folders of others
    log::Log(log::kError, log::kKiosk, "time: cannot run w32tm (%lu)", GetLastError());
    return false;
  }
  const std::wstring program = folder + L"\\w32tm.exe";
  std::wstring commandLine = L"\"" + program + L"\" /resync";
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION started{};
  if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                      folder.c_str(), &startup, &started)) {
    log::Log(log::kError, log::kKiosk, "time: cannot run w32tm (%lu)", GetLastError());
    return false;
  }
  const win32::KernelHandle thread(started.hThread);
  const win32::KernelHandle process(started.hProcess);
  const win32::WaitResult ended = win32::WaitOrStop(process.Get(), kProgramWait);
  DWORD exitCode = STILL_ACTIVE;
  GetExitCodeProcess(process.Get(), &exitCode);
  if (ended != win32::WaitResult::kSignaled) {
    TerminateProcess(process.Get(), exitCode);
  }
  if (exitCode != 0) {
    log::Log(log::kError, log::kKiosk, "time: w32tm /resync exited %lu", exitCode);
  }
  return exitCode == 0;
}

}  // namespace kiosk::timesync
