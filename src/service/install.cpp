#include "service/install.h"

#include "account/teardown.h"
#include "log/log.h"
#include "service/event_source.h"
#include "win32/clock.h"
#include "win32/console.h"
#include "win32/handle.h"
#include "win32/program_path.h"

#include <array>
#include <string>

namespace kiosk::service {
namespace {

using win32::ServiceHandle;

constexpr wchar_t kDisplayName[] = L"Norvane (Tessaly) Kiosk";
constexpr wchar_t kDescription[] = L"Enrols this computer as a Norvane kiosk terminal and manages its kiosk account.";
constexpr DWORD kStopWait = 60'000;
constexpr DWORD kStopPoll = 250;

// An installer that runs this program loses what it prints. Who has no right to install has none to the log either, and
// would only make its folders his own.
int TellFailure(const char* call, DWORD error) {
  win32::Print(std::string(call) + " failed (" + std::to_string(error) + ")\n");
  if (error != ERROR_ACCESS_DENIED) {
    log::Log(log::kError, log::kKiosk, "--install: %s failed (%lu)", call, error);
  }
  return 1;
}

// What takes long is announced to whoever watches; a script reads nothing but the last line.
void Announce(const char* text) {
  if (win32::OutputIsConsole()) {
    win32::Print(text);
  }
}

ServiceHandle CreateOrReconfigure(SC_HANDLE manager, const std::wstring& binary) {
  ServiceHandle service(CreateServiceW(manager, kServiceName, kDisplayName, SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                       binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (service || GetLastError() != ERROR_SERVICE_EXISTS) {
    return service;
  }
  service.Reset(OpenServiceW(manager, kServiceName, SERVICE_ALL_ACCESS));
  if (service &&
      ChangeServiceConfigW(service.Get(), SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                           binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, kDisplayName) == 0) {
    log::Log(log::kWarn, log::kKiosk, "--install: the service keeps its configuration (%lu)", GetLastError());
  }
  return service;
}

void DescribeAndGuard(SC_HANDLE service) {
  std::wstring text = kDescription;
  SERVICE_DESCRIPTIONW description{text.data()};
  ChangeServiceConfig2W(service, SERVICE_CONFIG_DESCRIPTION, &description);

  std::array<SC_ACTION, 3> actions{
      {{SC_ACTION_RESTART, 10'000}, {SC_ACTION_RESTART, 30'000}, {SC_ACTION_RESTART, 60'000}}};
  SERVICE_FAILURE_ACTIONSW failure{86'400, nullptr, nullptr, actions.size(), actions.data()};
  ChangeServiceConfig2W(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
}

void StopAndWait(SC_HANDLE service) {
  SERVICE_STATUS status{};
  ControlService(service, SERVICE_CONTROL_STOP, &status);
  const win32::Deadline deadline(kStopWait);
  while (QueryServiceStatus(service, &status) != 0 && status.dwCurrentState != SERVICE_STOPPED && !deadline.Passed()) {
    if (status.dwCurrentState == SERVICE_RUNNING) {
      ControlService(service, SERVICE_CONTROL_STOP, &status);  // while it was starting it took none
    }
    Sleep(kStopPoll);
  }
}

}  // namespace

int Install() {
  const std::wstring path = win32::StartablePath();
  if (path.empty()) {
    return TellFailure("GetModuleFileName", GetLastError());
  }
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  if (!manager) {
    return TellFailure("OpenSCManager", GetLastError());
  }
  const ServiceHandle service = CreateOrReconfigure(manager.Get(), L"\"" + path + L"\"");
  if (!service) {
    return TellFailure("CreateService", GetLastError());
  }
  DescribeAndGuard(service.Get());
  AddEventSource(path);
  StartServiceW(service.Get(), 0, nullptr);
  win32::Print("NorvaneKiosk installed\n");
  return 0;
}

int Uninstall() {
  log::StartBanner(log::kKiosk);
  {
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const ServiceHandle service(
        manager ? OpenServiceW(manager.Get(), kServiceName, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS) : nullptr);
    if (service) {
      Announce("Stopping the service, for at most a minute ...\n");
      StopAndWait(service.Get());
    }
    Announce("Giving the computer back, which takes up to a minute when the kiosk is signed in ...\n");
    // Also without a service: an earlier uninstall may have deleted it and left the rest.
    account::RemoveKioskMode(true, "uninstalled");
    if (service) {
      DeleteService(service.Get());
    }
    RemoveEventSource(win32::ProgramPath());
  }
  log::StopBanner(log::kKiosk);
  win32::Print("NorvaneKiosk removed\n");
  return 0;
}

}  // namespace kiosk::service
