// The kit's hand on the simulated computer, the one that NorvaneKioskSim.exe lives on as well. Not renamed, so it uses
// no inline function that calls Windows: the linker takes one copy of each for the whole program.
#include "sim/accounts.h"
#include "sim/callers.h"
#include "sim/computer.h"
#include "sim/machine.h"
#include "sim/sessions.h"
#include "sim/shutdown.h"
#include "tools/proof/hand.h"
#include "tools/proof/product.h"
#include "win32/hash.h"

#include <sstream>

namespace proof::hand {
namespace {

constexpr wchar_t kKiosk[] = L"NorvaneKiosk";
constexpr DWORD kRestartTime = 30'000;  // ms
constexpr DWORD kStopTime = 60'000;

// A password shows as a digest, a secret by its name alone.
std::string Masked(const std::string& line) {
  if (line.starts_with("secret ")) {
    return line.substr(0, line.find(' ', 7));
  }
  if (line.starts_with("user ")) {
    const std::size_t quote = line.rfind('"') + 1;
    return line.substr(0, quote) + " " + kiosk::win32::Sha256Hex(line.substr(quote)).substr(0, 8);
  }
  return line;
}

// What the service takes this process for while it asks.
kioskctl::Answer AskAs(const sim::PipeCaller& caller, const kiosk::json::Value& request) {
  const DWORD self = GetCurrentProcessId();
  sim::SetPipeCaller(caller, self);
  kioskctl::Answer answer = AskService(request);
  sim::ForgetArea(L"Callers\\" + std::to_wstring(self));
  return answer;
}

}  // namespace

// As the area "Computer" has it, which is empty for one that nobody needs.
Traits LookAround() {
  const auto number = [](const wchar_t* name) { return sim::ReadNumber(L"Computer", name).value_or(0); };
  return {.noRights = number(L"NoRights"),
          .inDomain = number(L"InDomain") != 0,
          .managed = number(L"Managed") != 0,
          .battery = number(L"Battery") != 0,
          .isVirtual = number(L"Metal") == 0,
          .desktop = number(L"NoDesktop") == 0};
}

std::vector<std::string> WorldLines() {
  std::vector<std::string> lines;
  std::istringstream dump(sim::DumpMachine({}));
  for (std::string line; std::getline(dump, line);) {
    lines.push_back(Masked(line));
  }
  return lines;
}

// Whoever runs this is such a person.
kioskctl::Answer AskAsPerson(const kiosk::json::Value& request) { return AskService(request); }

std::optional<bool> AskAsKiosk(const kiosk::json::Value& request) {
  const std::optional<sim::User> kiosk = sim::FindUser(kKiosk);
  if (!kiosk || sim::SessionOf(kiosk->sid) == 0) {
    return std::nullopt;
  }
  const kioskctl::Answer answer = AskAs({.user = kKiosk}, request);
  return answer.outcome == kioskctl::Outcome::kReply && kiosk::json::Member(answer.reply, "ok").boolean();
}

std::optional<kioskctl::Answer> AskAsSystem(const kiosk::json::Value& request) {
  return AskAs({.user = sim::kSystemSid, .interactive = false}, request);
}

// Nobody's rights to files and keys are judged.
bool AsSecondUser(bool /*interactive*/, const std::function<void()>& /*action*/) { return false; }

bool Restart(bool byProduct) {
  if (byProduct && !Within(kRestartTime, [] { return sim::PendingShutdown().has_value(); })) {
    return false;
  }
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  const SC_HANDLE service = OpenServiceW(manager, kKiosk, SERVICE_START | SERVICE_QUERY_STATUS);
  // The shutdown control, by the way that sim/service_control.h names.
  sim::WriteText(L"ServiceControl", L"Request", L"5");
  const bool stopped = Within(kStopTime, [service] {
    SERVICE_STATUS status{};
    return QueryServiceStatus(service, &status) != 0 && status.dwCurrentState == SERVICE_STOPPED;
  });
  if (stopped) {
    sim::RestartComputer();
  }
  const bool started = stopped && StartServiceW(service, 0, nullptr) != 0;
  CloseServiceHandle(service);
  CloseServiceHandle(manager);
  return started;
}

}  // namespace proof::hand
