#include "tools/proof/services.h"

namespace proof {

using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

ServiceHandle OpenExisting(const wchar_t* name, DWORD access) {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  return ServiceHandle(manager ? OpenServiceW(manager.Get(), name, access) : nullptr);
}

DWORD ProcessOf(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                              &needed) != 0
             ? status.dwProcessId
             : 0;
}

bool EndService(const wchar_t* name) {
  constexpr DWORD kStopTime = 60'000;  // ms
  const ServiceHandle service = OpenExisting(name, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS);
  if (!service) {
    return GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST;
  }
  const DWORD id = ProcessOf(service.Get());
  const KernelHandle process(id != 0 ? OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, id) : nullptr);
  SERVICE_STATUS stopped{};
  ControlService(service.Get(), SERVICE_CONTROL_STOP, &stopped);
  if (process && WaitForSingleObject(process.Get(), kStopTime) != WAIT_OBJECT_0) {
    TerminateProcess(process.Get(), 1);
    WaitForSingleObject(process.Get(), kStopTime);
  }
  return DeleteService(service.Get()) != 0 || GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
}

}  // namespace proof
