// The kit's hand on the simulated computer, the one that NorvaneKioskSim.exe lives on as well.
#include "sim/accounts.h"
#include "sim/callers.h"
#include "sim/computer.h"
#include "sim/machine.h"
#include "sim/sessions.h"
#include "sim/shutdown.h"
#include "tools/proof/hand.h"

#include "json/serialise.h"
#include "win32/hash.h"

#include <sstream>
#include <utility>

namespace proof::hand {
namespace {

constexpr wchar_t kKiosk[] = L"NorvaneKiosk";
constexpr DWORD kPoll = 50;  // ms
constexpr DWORD kRestartTime = 30'000;
constexpr DWORD kStopTime = 60'000;

kioskctl::Answer Ask(const kiosk::json::Value& request) {
  return kioskctl::Ask(kiosk::text::Secret(kiosk::json::Serialise(request)), kioskctl::kPairWait);
}

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

// Polls for what another process does.
template <typename Condition>
bool Within(DWORD milliseconds, Condition condition) {
  for (const ULONGLONG end = GetTickCount64() + milliseconds; !condition(); Sleep(kPoll)) {
    if (GetTickCount64() > end) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::vector<std::string> WorldLines() {
  std::vector<std::string> lines;
  std::istringstream dump(sim::DumpMachine({}));
  for (std::string line; std::getline(dump, line);) {
    lines.push_back(Masked(line));
  }
  return lines;
}

// Whoever runs this is such a person.
kioskctl::Answer AskAsPerson(const kiosk::json::Value& request) { return Ask(request); }

std::optional<bool> AskAsKiosk(const kiosk::json::Value& request) {
  const std::optional<sim::User> kiosk = sim::FindUser(kKiosk);
  if (!kiosk || sim::SessionOf(kiosk->sid) == 0) {
    return std::nullopt;
  }
  const DWORD self = GetCurrentProcessId();
  sim::SetPipeCaller({.user = kKiosk}, self);
  const kioskctl::Answer answer = Ask(request);
  sim::ForgetArea(L"Callers\\" + std::to_wstring(self));
  return answer.outcome == kioskctl::Outcome::kReply && kiosk::json::Member(answer.reply, "ok").boolean();
}

// Nobody's rights to files and keys are judged.
bool AsSecondUser(const std::function<void()>& /*action*/) { return false; }

bool Restart(bool byProduct) {
  if (byProduct && !Within(kRestartTime, [] { return sim::PendingShutdown().has_value(); })) {
    return false;
  }
  const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  const SC_HANDLE service = OpenServiceW(manager, kKiosk, SERVICE_ALL_ACCESS);
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
