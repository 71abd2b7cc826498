// The service's entry, linked as it is into both programs: a handler that the simulation knew of would hear of sessions
// in the product's place.
#include "tools/proof/agent.h"

#include "win32/winapi.h"

namespace proof {
namespace {

wchar_t name[] = L"NorvaneProofAgent";
SERVICE_STATUS_HANDLE handle = nullptr;

void Report(DWORD state, DWORD exitCode = NO_ERROR) {
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, 0, exitCode, 0, 0, 0};
  status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  SetServiceStatus(handle, &status);
}

DWORD WINAPI Control(DWORD control, DWORD /*type*/, void* /*data*/, void* /*context*/) {
  if (control == SERVICE_CONTROL_STOP) {
    Report(SERVICE_STOPPED);
    TerminateProcess(GetCurrentProcess(), 0);
  }
  return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : ERROR_CALL_NOT_IMPLEMENTED;
}

void WINAPI Main(DWORD /*count*/, wchar_t** /*arguments*/) {
  handle = RegisterServiceCtrlHandlerExW(name, Control, nullptr);
  Report(SERVICE_RUNNING);
  Report(SERVICE_STOPPED, RunAgent() ? NO_ERROR : ERROR_INVALID_DATA);
}

}  // namespace

bool ServeAsAgent() {
  const SERVICE_TABLE_ENTRYW table[] = {{name, Main}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) != 0;
}

}  // namespace proof
