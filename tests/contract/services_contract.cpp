// Services and their manager.
#include "tests/contract/contract.h"
#include "win32/handle.h"

namespace contract {
namespace {

using kiosk::win32::ServiceHandle;

constexpr wchar_t kName[] = L"NorvaneProof";

ServiceHandle Manager() {
  ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  Asked::Needs(static_cast<bool>(manager), "the right to make services");
  return manager;
}

// A service that is never started, and is deleted at the end.
class Service {
 public:
  Service() : manager_(Manager()), service_(Make()) { Asked::Needs(static_cast<bool>(service_), "a service"); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() { DeleteService(service_.Get()); }
  [[nodiscard]] SC_HANDLE Get() const noexcept { return service_.Get(); }
  [[nodiscard]] ServiceHandle Make() const {
    return ServiceHandle(CreateServiceW(manager_.Get(), kName, L"Proof of the kiosk", SERVICE_ALL_ACCESS,
                                        SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                        L"\"C:\\NorvaneProof\\no program.exe\"", nullptr, nullptr, nullptr, nullptr,
                                        nullptr));
  }

 private:
  ServiceHandle manager_;
  ServiceHandle service_;
};

void MissingServicesAreErrors(Asked& asked) {
  const ServiceHandle manager = Manager();
  asked.Fails("OpenServiceW",
              static_cast<bool>(ServiceHandle(OpenServiceW(manager.Get(), L"NorvaneProofNone", SERVICE_QUERY_STATUS))),
              {ERROR_SERVICE_DOES_NOT_EXIST});
}

void NamesAreGivenOnce(Asked& asked) {
  const Service service;
  asked.Fails("a second time", static_cast<bool>(service.Make()), {ERROR_SERVICE_EXISTS});
}

void ConfigurationsWantRoom(Asked& asked) {
  const Service service;
  DWORD needed = 0;
  asked.Fails("no room", QueryServiceConfigW(service.Get(), nullptr, 0, &needed) != 0, {ERROR_INSUFFICIENT_BUFFER});
  alignas(QUERY_SERVICE_CONFIGW) BYTE room[8192];
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(room);
  asked.True("as much as it wants",
             needed <= sizeof(room) && QueryServiceConfigW(service.Get(), config, sizeof(room), &needed) != 0);
  asked.Same("the program", config->lpBinaryPathName, L"\"C:\\NorvaneProof\\no program.exe\"");
  asked.True("ChangeServiceConfigW",
             ChangeServiceConfigW(service.Get(), SERVICE_NO_CHANGE, SERVICE_DISABLED, SERVICE_NO_CHANGE, nullptr,
                                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) != 0);
  QueryServiceConfigW(service.Get(), config, sizeof(room), &needed);
  asked.Same("when it starts", config->dwStartType, SERVICE_DISABLED);
  asked.Fails("starting it now", StartServiceW(service.Get(), 0, nullptr) != 0, {ERROR_SERVICE_DISABLED});
  wchar_t text[] = L"description";
  SERVICE_DESCRIPTIONW description{text};
  asked.True("ChangeServiceConfig2W",
             ChangeServiceConfig2W(service.Get(), SERVICE_CONFIG_DESCRIPTION, &description) != 0);
}

void StoppedServicesTakeNoControls(Asked& asked) {
  const Service service;
  SERVICE_STATUS status{};
  asked.Fails("ControlService", ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) != 0,
              {ERROR_SERVICE_NOT_ACTIVE});
  SERVICE_STATUS_PROCESS now{};
  DWORD needed = 0;
  asked.True("QueryServiceStatusEx", QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO,
                                                          reinterpret_cast<BYTE*>(&now), sizeof(now), &needed) != 0);
  asked.Same("its state", now.dwCurrentState, SERVICE_STOPPED);
  asked.Same("its process", now.dwProcessId, 0);
  asked.Fails("no room for the status",
              QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, nullptr, 0, &needed) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
}

void DeletedServicesAreMarked(Asked& asked) {
  const Service service;
  asked.True("DeleteService", DeleteService(service.Get()) != 0);
  asked.Fails("a second time", DeleteService(service.Get()) != 0, {ERROR_SERVICE_MARKED_FOR_DELETE});
}

DWORD WINAPI Control(DWORD, DWORD, void*, void*) { return NO_ERROR; }
void WINAPI Main(DWORD, wchar_t**) {}

// This program was not started by the service manager.
void ProgramsAreNoServices(Asked& asked) {
  wchar_t name[] = L"NorvaneProof";
  const SERVICE_TABLE_ENTRYW table[] = {{name, Main}, {nullptr, nullptr}};
  asked.Fails("StartServiceCtrlDispatcherW", StartServiceCtrlDispatcherW(table) != 0,
              {ERROR_FAILED_SERVICE_CONTROLLER_CONNECT});
  asked.True("RegisterServiceCtrlHandlerExW fails", RegisterServiceCtrlHandlerExW(kName, Control, nullptr) == nullptr);
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, 0, NO_ERROR, 0, 0, 0};
  asked.Fails("SetServiceStatus", SetServiceStatus(nullptr, &status) != 0, {ERROR_INVALID_HANDLE});
}

constexpr Case kCases[] = {
    {"missing", "a service that is not there is told by an error of its own", MissingServicesAreErrors},
    {"once", "a name is given once", NamesAreGivenOnce},
    {"configuration", "a configuration tells its size, changes, and counts at once", ConfigurationsWantRoom},
    {"stopped", "a stopped service has no process and takes no controls", StoppedServicesTakeNoControls},
    {"deleted", "a deleted service is marked while a handle is open", DeletedServicesAreMarked},
    {"no service", "a program that was started by hand is no service", ProgramsAreNoServices},
};

}  // namespace

extern const Group kServices;
const Group kServices{"services", kCases};

}  // namespace contract
