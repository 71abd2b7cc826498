#include "sim/service_control.h"

#include "sim/clock.h"
#include "sim/machine.h"
#include "sim/seam.h"

#include <wtsapi32.h>

#include <cwchar>
#include <mutex>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"ServiceControl";
constexpr DWORD kAnswerTime = 5000;  // ms, for the service in another process

std::mutex mutex;
bool hosted = false;
std::wstring serviceName;
LPHANDLER_FUNCTION_EX handler = nullptr;
void* handlerContext = nullptr;
SERVICE_STATUS_HANDLE statusHandle = nullptr;
std::vector<SERVICE_STATUS> reports;
SRWLOCK delivering = SRWLOCK_INIT;  // the manager delivers one control at a time

DWORD CallHandler(DWORD control, DWORD eventType, DWORD session) {
  if (handler == nullptr) {
    Violation("control %lu is delivered before a handler is registered", control);
    return ERROR_SERVICE_NOT_ACTIVE;
  }
  WTSSESSION_NOTIFICATION notification{sizeof(notification), session};
  AcquireLock(&delivering, false);
  const DWORD answer =
      handler(control, eventType, control == SERVICE_CONTROL_SESSIONCHANGE ? &notification : nullptr, handlerContext);
  ::ReleaseSRWLockExclusive(&delivering);
  LockReleased();
  return answer;
}

// Whether a service of this process has said that it wants to hear of sessions.
bool ListensHere() {
  const std::lock_guard guard(mutex);
  return handler != nullptr && !reports.empty() &&
         (reports.back().dwControlsAccepted & SERVICE_ACCEPT_SESSIONCHANGE) != 0;
}

bool ListensElsewhere() {
  const DWORD id = ReadNumber(kArea, L"Process").value_or(0);
  HANDLE process = id == 0 || id == GetCurrentProcessId() ? nullptr : OpenProcess(SYNCHRONIZE, FALSE, id);
  const bool runs = process != nullptr && ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  CloseHandle(process);
  return runs;
}

// Under the real service manager, on a thread of its own for the life of the process.
DWORD WINAPI ServeRequests(void*) {
  WriteText(kArea, L"Request", L"");
  WriteNumber(kArea, L"Process", GetCurrentProcessId());
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kMachineKey) + L"\\" + kArea).c_str(), 0, KEY_READ, &key) != 0) {
    return 1;
  }
  for (HANDLE changed = CreateEventW(nullptr, FALSE, FALSE, nullptr);; WaitForSingleObject(changed, INFINITE)) {
    RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed, TRUE);
    DWORD control = 0;
    DWORD eventType = 0;
    DWORD session = 0;
    const std::wstring request = ReadText(kArea, L"Request").value_or(L"");
    if (request.empty()) {
      continue;
    }
    ForgetValue(kArea, L"Request");
    if (std::swscanf(request.c_str(), L"%lu %lu %lu", &control, &eventType, &session) < 1) {
      Violation("the service is sent \"%s\", which is no control", Narrow(request).c_str());
    }
    WriteNumber(kArea, L"Answer", CallHandler(control, eventType, session));
  }
}

void CheckReport(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status) {
  if (handle != statusHandle) {
    Violation("SetServiceStatus: not the handle of the registration");
  }
  if (status.dwServiceType != SERVICE_WIN32_OWN_PROCESS || status.dwCurrentState < SERVICE_STOPPED ||
      status.dwCurrentState > SERVICE_PAUSED) {
    Violation("SetServiceStatus: type 0x%lx, state %lu", status.dwServiceType, status.dwCurrentState);
  }
  if (!reports.empty() && reports.back().dwCurrentState == SERVICE_STOPPED) {
    Violation("SetServiceStatus: state %lu after SERVICE_STOPPED", status.dwCurrentState);
  }
  const bool pending = status.dwCurrentState == SERVICE_START_PENDING || status.dwCurrentState == SERVICE_STOP_PENDING;
  if (!pending && (status.dwWaitHint != 0 || status.dwCheckPoint != 0)) {
    Violation("SetServiceStatus: state %lu with a wait hint or checkpoint", status.dwCurrentState);
  }
  if (status.dwCurrentState == SERVICE_START_PENDING && status.dwControlsAccepted != 0) {
    Violation("SetServiceStatus: controls are accepted while the service starts");
  }
}

}  // namespace

ServiceHost::ServiceHost() {
  const std::lock_guard guard(mutex);
  hosted = true;
  reports.clear();
}

ServiceHost::~ServiceHost() {
  const std::lock_guard guard(mutex);
  hosted = false;
  handler = nullptr;
}

SC_HANDLE OpenHosted(const wchar_t* name, DWORD access) {
  const std::lock_guard guard(mutex);
  return hosted && access == SERVICE_QUERY_STATUS && serviceName == name ? kHostedService : nullptr;
}

bool ServiceListens() { return ListensHere() || ListensElsewhere(); }

void DeliverSessionChange(DWORD eventType, DWORD session) {
  if (ListensHere()) {
    CallHandler(SERVICE_CONTROL_SESSIONCHANGE, eventType, session);
  } else if (ListensElsewhere()) {
    ForgetValue(kArea, L"Answer");
    WriteText(kArea, L"Request", L"14 " + std::to_wstring(eventType) + L" " + std::to_wstring(session));
    const ULONGLONG end = ::GetTickCount64() + kAnswerTime;
    while (!ReadNumber(kArea, L"Answer") && ::GetTickCount64() < end && ListensElsewhere()) {
      ::Sleep(5);
    }
  }
}

DWORD ServiceHost::Deliver(DWORD control, DWORD eventType, DWORD session) {
  return CallHandler(control, eventType, session);
}

std::vector<SERVICE_STATUS> ServiceHost::Reports() const {
  const std::lock_guard guard(mutex);
  return reports;
}

std::wstring ServiceHost::ServiceName() const {
  const std::lock_guard guard(mutex);
  return serviceName;
}

}  // namespace sim

using namespace sim;

SIM(SERVICE_STATUS_HANDLE, RegisterServiceCtrlHandlerExW, LPCWSTR name, LPHANDLER_FUNCTION_EX newHandler,
    LPVOID context) {
  const std::lock_guard guard(mutex);
  SERVICE_STATUS_HANDLE handle = hosted ? reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51)
                                        : ::RegisterServiceCtrlHandlerExW(name, newHandler, context);
  if (handle != nullptr) {
    serviceName = name;
    handler = newHandler;
    handlerContext = context;
    statusHandle = handle;
    if (!hosted) {
      CloseHandle(CreateThread(nullptr, 0, ServeRequests, nullptr, 0, nullptr));
    }
  }
  return handle;
}

// The test's manager runs one service, on the thread that hands itself over.
SIM(WINBOOL, StartServiceCtrlDispatcherW, CONST SERVICE_TABLE_ENTRYW* table) {
  if (const bool real = (std::lock_guard(mutex), !hosted); real) {
    return ::StartServiceCtrlDispatcherW(table);
  }
  wchar_t* arguments[] = {table->lpServiceName, nullptr};
  table->lpServiceProc(1, arguments);
  return TRUE;
}

SIM(WINBOOL, SetServiceStatus, SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status) {
  const std::lock_guard guard(mutex);
  CheckReport(handle, *status);
  reports.push_back(*status);
  return hosted ? TRUE : ::SetServiceStatus(handle, status);
}

SIM(WINBOOL, QueryServiceStatusEx, SC_HANDLE service, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size, LPDWORD needed) {
  if (service != kHostedService) {
    return ::QueryServiceStatusEx(service, level, buffer, size, needed);
  }
  const std::lock_guard guard(mutex);
  const DWORD state = reports.empty() ? SERVICE_STOPPED : reports.back().dwCurrentState;
  SERVICE_STATUS_PROCESS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwProcessId = state == SERVICE_STOPPED ? 0 : GetCurrentProcessId();
  *needed = sizeof(status);
  if (level != SC_STATUS_PROCESS_INFO || size < sizeof(status)) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer) = status;
  return TRUE;
}
