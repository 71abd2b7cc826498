// A service that does nothing, built as the product is and with the same system libraries in it: what the product's
// memory is compared with, so that what remains is the product's own.
#include "win32/com.h"

#include <string>

namespace {

HANDLE stopEvent = nullptr;
SERVICE_STATUS_HANDLE handle = nullptr;

void Report(DWORD state) {
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, 0, 0, 0, 0};
  SetServiceStatus(handle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD /*type*/, void* /*data*/, void* /*context*/) {
  if (control == SERVICE_CONTROL_STOP) {
    SetEvent(stopEvent);
  }
  return NO_ERROR;
}

void WINAPI ServiceMain(DWORD /*count*/, LPWSTR* /*arguments*/) {
  handle = RegisterServiceCtrlHandlerExW(L"NorvaneEmpty", OnControl, nullptr);
  const kiosk::win32::ComApartment apartment;
  for (const wchar_t* library :
       {L"advapi32", L"bcrypt", L"crypt32", L"ole32", L"user32", L"wintrust", L"winhttp", L"wtsapi32", L"ws2_32"}) {
    LoadLibraryW(library);
  }
  Report(SERVICE_RUNNING);
  WaitForSingleObject(stopEvent, INFINITE);
  Report(SERVICE_STOPPED);
}

}  // namespace

int main() {
  stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::wstring name = L"NorvaneEmpty";
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) != 0 ? 0 : 1;
}
