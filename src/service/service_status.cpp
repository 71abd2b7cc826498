#include "service/service_status.h"

#include "win32/lock.h"

namespace kiosk::service {
namespace {

constexpr DWORD kStartWait = 30'000;
constexpr DWORD kStopWait = 45'000;

win32::Lock lock{win32::LockRank::kLeaf};
SERVICE_STATUS_HANDLE handle = nullptr;  // written before the first report
SERVICE_STATUS status GUARDED_BY(lock){SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, NO_ERROR, 0, 0, 0};
bool over GUARDED_BY(lock) = false;

void Report(DWORD state, DWORD controls, DWORD waitHint) noexcept {
  const win32::LockGuard guard(lock);
  if (over) {
    return;
  }
  over = state == SERVICE_STOPPED;
  status.dwCurrentState = state;
  status.dwControlsAccepted = controls;
  status.dwWaitHint = waitHint;
  SetServiceStatus(handle, &status);
}

}  // namespace

bool RegisterControls(const wchar_t* serviceName, LPHANDLER_FUNCTION_EX handler) noexcept {
  handle = RegisterServiceCtrlHandlerExW(serviceName, handler, nullptr);
  return handle != nullptr;
}

void ReportStartPending() noexcept { Report(SERVICE_START_PENDING, 0, kStartWait); }

void ReportRunning() noexcept {
  Report(SERVICE_RUNNING, SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE, 0);
}

void ReportStopPending() noexcept { Report(SERVICE_STOP_PENDING, 0, kStopWait); }

void ReportStopped() noexcept { Report(SERVICE_STOPPED, 0, 0); }

}  // namespace kiosk::service
