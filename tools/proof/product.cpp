#include "tools/proof/product.h"

#include "service/install.h"
#include "tools/proof/hand.h"
#include "win32/handle.h"

#include <utility>

namespace proof {
namespace {

using kiosk::json::Value;
using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

constexpr DWORD kProgramLimit = 180'000;  // ms
constexpr DWORD kStopLimit = 60'000;

ServiceHandle OpenProduct(DWORD access) {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  return ServiceHandle(manager ? OpenServiceW(manager.Get(), kiosk::service::kServiceName, access) : nullptr);
}

DWORD ProcessOf(SC_HANDLE service) {
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                              &needed) != 0
             ? status.dwProcessId
             : 0;
}

}  // namespace

Ran RunProduct(const wchar_t* option) { return RunProgram(L"\"" + ProductProgram() + L"\" " + option, kProgramLimit); }

Value AskProduct(Value request) {
  kioskctl::Answer answer = hand::AskAsPerson(request);
  request.Wipe();
  return answer.outcome == kioskctl::Outcome::kReply ? std::move(answer.reply) : Value();
}

Value AskProduct(const char* command) {
  Value request = Value::Object();
  request.Set("cmd", command);
  return AskProduct(std::move(request));
}

DWORD ProductProcess() {
  const ServiceHandle service = OpenProduct(SERVICE_QUERY_STATUS);
  return service ? ProcessOf(service.Get()) : 0;
}

DWORD StopProduct() {
  const ServiceHandle service = OpenProduct(SERVICE_STOP | SERVICE_QUERY_STATUS);
  const KernelHandle process(service ? OpenProcess(SYNCHRONIZE, FALSE, ProcessOf(service.Get())) : nullptr);
  const ULONGLONG begun = GetTickCount64();
  SERVICE_STATUS status{};
  if (!process || ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) == 0 ||
      WaitForSingleObject(process.Get(), kStopLimit) != WAIT_OBJECT_0) {
    return INFINITE;
  }
  return static_cast<DWORD>(GetTickCount64() - begun);
}

bool StartProduct() {
  const ServiceHandle service = OpenProduct(SERVICE_START);
  // The service manager may take a moment to see that the process has ended.
  return service &&
         Within(kSoon,
                [&] {
                  return StartServiceW(service.Get(), 0, nullptr) != 0 ||
                         GetLastError() == ERROR_SERVICE_ALREADY_RUNNING;
                }) &&
         Within(kSoon, [] { return AskProduct("status").IsObject(); });
}

bool RestartProduct() { return StopProduct() != INFINITE && StartProduct(); }

}  // namespace proof
