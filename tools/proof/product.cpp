#include "tools/proof/product.h"

#include "json/serialise.h"
#include "service/install.h"
#include "state/folders.h"
#include "tools/proof/hand.h"
#include "tools/proof/services.h"
#include "win32/folder_entries.h"
#include "win32/wide_text.h"

#include <utility>

namespace proof {
namespace {

using kiosk::json::Value;
using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

constexpr DWORD kProgramLimit = 180'000;  // ms
constexpr DWORD kStopLimit = 60'000;

}  // namespace

Ran RunProduct(const wchar_t* option) { return RunProgram(L"\"" + ProductProgram() + L"\" " + option, kProgramLimit); }

Value Request(const char* command) {
  Value request = Value::Object();
  request.Set("cmd", command);
  return request;
}

std::wstring Error(const Value& reply) {
  return kiosk::win32::ToWide(reply.IsNull() ? "no reply" : Member(reply, "error").text());
}

kioskctl::Answer AskService(const Value& request) {
  return kioskctl::Ask(kiosk::text::Secret(kiosk::json::Serialise(request)), kioskctl::kPairWait);
}

Value AskProduct(Value request) {
  kioskctl::Answer answer = hand::AskAsPerson(request);
  request.Wipe();
  return answer.outcome == kioskctl::Outcome::kReply ? std::move(answer.reply) : Value();
}

Value AskProduct(const char* command) { return AskProduct(Request(command)); }

Value AwaitStatus() {
  Value status;
  Within(kSoon, [&] { return (status = AskProduct("status")).IsObject(); });
  return status;
}

DWORD StopProduct() {
  const ServiceHandle service = OpenExisting(kiosk::service::kServiceName, SERVICE_STOP);
  const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, ProductProcess()));
  const ULONGLONG begun = GetTickCount64();
  SERVICE_STATUS status{};
  if (!process || ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) == 0 ||
      WaitForSingleObject(process.Get(), kStopLimit) != WAIT_OBJECT_0) {
    return INFINITE;
  }
  return static_cast<DWORD>(GetTickCount64() - begun);
}

bool StartProduct() {
  const ServiceHandle service = OpenExisting(kiosk::service::kServiceName, SERVICE_START);
  const auto started = [&] {
    return StartServiceW(service.Get(), 0, nullptr) != 0 || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING;
  };
  // The service manager may take a moment to see that the process has ended.
  return service && Within(kSoon, started) && AwaitStatus().IsObject();
}

std::string ProductLog() {
  std::string text;
  for (const kiosk::win32::FolderEntry& day : kiosk::win32::EntriesOf(kiosk::state::kLogRoot, L"*-*-*")) {
    for (const kiosk::win32::FolderEntry& log : kiosk::win32::EntriesOf(day.path, L"Kiosk_*.log")) {
      text += ReadFileText(log.path).value_or("");
    }
  }
  return text;
}

bool RestartProduct() { return StopProduct() != INFINITE && StartProduct(); }

}  // namespace proof
