// What people do, and restarts; around.cpp has what happens around them.
#include "json/parse.h"
#include "sim/accounts.h"
#include "sim/computer.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/soak/life.h"
#include "tests/soak/portal.h"
#include "tests/soak/world.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

#include <algorithm>
#include <iterator>

namespace kiosk::soak {
namespace {

constexpr std::uint64_t kMinute = 60'000;
constexpr DWORD kDesk = 1;  // a session of somebody who is at the computer

// The sessions in which somebody is signed in.
std::vector<DWORD> Sessions() {
  std::vector<DWORD> ids;
  for (const std::wstring& name : sim::AreaNames(L"Sessions")) {
    ids.push_back(std::wcstoul(name.c_str(), nullptr, 10));
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

pipe::CallerRecord Person() { return {.isInteractive = true, .sessionId = kDesk}; }

// The kiosk's shell; in session 0 when it is not signed in.
pipe::CallerRecord Shell() {
  return {.isInteractive = true, .isKioskAccount = true, .sessionId = sim::SessionOf(test::Kiosk().sid)};
}

std::string Member(const std::string& reply, const char* name) {
  const auto parsed = json::Parse(reply);
  return parsed ? json::Member(*parsed, name).text() : std::string();
}

// What the shell asks for with the settings unlocked; each begins behind the token.
constexpr const char* kRequests[] = {
    R"("cmd":"power.get"})",
    R"("cmd":"power.set","screenOffMinutes":20,"sleepMinutes":40})",
    R"("cmd":"power.set","screenOffMinutes":1,"sleepMinutes":0,"schedule":{"enabled":true,"sleepAt":"23:00","wakeAt":"05:00","days":[0,3,6]}})",
    R"("cmd":"power.set","screenOffMinutes":1,"sleepMinutes":0,"useOrganisation":true})",
    R"("cmd":"proxy.set","mode":"none"})",
    R"("cmd":"proxy.set","mode":"manual","server":"proxy.test:8080","bypass":"<local>"})",
    R"("cmd":"net.set","adapter":"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}","mode":"dhcp"})",
    R"("cmd":"net.set","adapter":"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}","mode":"static","address":"192.168.7.44","prefixLength":24,"gateway":"192.168.7.1","dns":["9.9.9.9"]})",
    R"("cmd":"net.set","adapter":"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}","mode":"static","address":"10.1.2.3","prefixLength":24,"gateway":"10.1.2.1","dns":[]})",
    R"("cmd":"net.set","keep":true,"adapter":"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}","mode":"static","address":"10.1.2.3","prefixLength":24,"dns":[]})",
    R"("cmd":"os.updates","check":true})",
    R"("cmd":"os.install"})",
    R"("cmd":"session.report","signedIn":true,"live":false})",
    R"("cmd":"session.report","signedIn":false,"live":true})",
    R"("cmd":"session.report","signedIn":false})",
    R"("cmd":"status"})",
};

}  // namespace

std::string Life::ExitPasswordOr(bool wrong) const { return wrong ? "no" : ExitPassword(); }

// The person enters the code in the portal, or leaves it; asks too early, or not at all.
void Life::Pair(std::uint32_t number) {
  const std::string code = Member(Ask(Person(), R"({"cmd":"pair.begin"})"), "code");
  const std::string check = R"({"cmd":"pair.check","code":")" + code + "\"}";
  if ((number & 1) != 0) {
    Ask(Person(), check);
  }
  world.claimed = (number & 6) != 0;
  const std::string reply = Ask(Person(), check);
  world.claimed = false;
  ++world.pairings;
  if (reply.find(kTokenMark) != std::string::npos) {
    Broken("secrets: a reply holds the token");
  }
}

void Life::SignIn(std::uint32_t number) {
  const std::wstring name = number == 0 ? L"anna" : L"berta";
  const auto user = sim::FindUser(name);
  if (user && sim::SessionOf(user->sid) == 0) {
    sim::SignIn(name);
  }
}

void Life::SignOut(std::uint32_t number) {
  if (const std::vector<DWORD> ids = Sessions(); !ids.empty()) {
    sim::SignOut(ids[number % ids.size()]);
  }
}

void Life::Unlock(std::uint32_t number) {
  const std::string reply =
      Ask(Shell(), R"({"cmd":"unlock",)" + test::Credentials(ExitPasswordOr(number == 0)).substr(1));
  unlock_ = Member(reply, "unlockToken");
}

void Life::Maintenance(std::uint32_t number) {
  Ask(Shell(),
      R"({"cmd":"maintenance",)" +
          test::Credentials(number == 3 ? "" : ExitPasswordOr(number == 0), number == 3 ? unlock_ : "").substr(1));
}

void Life::Setting(std::uint32_t number) {
  Ask(Shell(), R"({"unlockToken":")" + unlock_ + "\"," + kRequests[number % std::size(kRequests)]);
}

// A version before knew no digest of the secret.
bool Life::Upgrade() {
  StopService(SERVICE_CONTROL_STOP);
  if (test::Winlogon(L"DefaultUserName") == L"NorvaneKiosk") {
    state::DeleteStateValue(state::kAutoLogonDigest);
  }
  return false;
}

bool Life::Uninstall() {
  StopService(SERVICE_CONTROL_STOP);
  world.uninstalling = world.installed;
  SaveWorld();
  return !world.installed;
}

bool Life::Install() {
  const bool missing = !world.installed;
  if (missing) {
    SetUpProduct();
    world.installed = true;
    SaveWorld();
  }
  return !missing;
}

// Hours forwards or backwards, a minute and a half, or summer time begins or ends.
void Life::MoveClock(std::uint32_t number) {
  const std::uint64_t hours = std::uint64_t{1 + number / 4 % 70} * 60 * kMinute * 10'000;
  switch (number % 4) {
    case 0:
      clock_.SetSystemTime(clock_.SystemTime() + hours);
      break;
    case 1:
      clock_.SetSystemTime(clock_.SystemTime() - hours);
      break;
    case 2:
      clock_.SetSystemTime(clock_.SystemTime() - 90 * 10'000'000ULL);
      break;
    default:
      world.bias = world.bias == -60 ? -120 : -60;
      clock_.SetBias(world.bias);
  }
}

// In order, with the people signed out before or not; for hours or days; or the power goes; or Windows keeps its kernel
// and its services over a shutdown (Fast Startup), and signs in anew.
bool Life::Restart(std::uint32_t number) {
  if (number > 8) {
    for (const DWORD id : Sessions()) {
      sim::SignOut(id);
    }
    const std::uint64_t off = std::uint64_t{number - 8} * number * 60 * kMinute;
    clock_.SetSystemTime(clock_.SystemTime() + off * 10'000);
    world.lived += off;
    sim::SignInAutomatically();
    return true;
  }
  if (number == 8) {
    world.boot = true;
    world.ticks = 1;
    SaveWorld();
    return false;
  }
  for (const DWORD id : number % 2 != 0 ? Sessions() : std::vector<DWORD>()) {
    sim::SignOut(id);
  }
  constexpr std::uint64_t kHours[] = {0, 0, 0, 0, 0, 8, 20, 100};
  Shutdown(40'000 + kHours[number] * 60 * kMinute);
  return false;
}

// An hour in which nothing is wrong, then a restart, after which the kiosk is to be there. Where the product is not
// installed, a restart and once more the uninstall, as the documents tell the administrator of one that left something.
bool Life::Peace() {
  switch (world.peace) {
    case 0:
      Heal();
      world.peace = world.installed ? 1 : 3;
      world.uninstalling = !world.installed;
      world.waitLeft = world.installed ? 3660 : 0;
      if (!world.installed) {
        Shutdown(40'000);
        return false;
      }
      [[fallthrough]];
    case 1:
      if (!Wait(world.waitLeft)) {
        return true;
      }
      CheckPeace();
      world.peace = 2;
      world.waitLeft = 300;
      Shutdown(40'000);
      return false;
    case 2:
      CheckPeace();
      break;
    default:
      CheckUninstalled();
  }
  world.peace = 0;
  return true;
}

bool Life::Do(const Step& step) {
  const Hand hand;
  world.troubleAt = step.kind == Kind::kWait || step.kind == Kind::kPeace ? world.troubleAt : world.lived;
  switch (step.kind) {
    case Kind::kWait:
      Wait(step.number);
      break;
    case Kind::kPair:
      Pair(step.number);
      break;
    case Kind::kSignIn:
      SignIn(step.number);
      break;
    case Kind::kSignOut:
      SignOut(step.number);
      break;
    case Kind::kUnlock:
      Unlock(step.number);
      break;
    case Kind::kMaintenance:
      Maintenance(step.number);
      break;
    case Kind::kClock:
      MoveClock(step.number);
      break;
    case Kind::kSetting:
      Setting(step.number);
      break;
    case Kind::kRestart:
      return Restart(step.number);
    case Kind::kUpgrade:
      return Upgrade();
    case Kind::kUninstall:
      return Uninstall();
    case Kind::kInstall:
      return Install();
    case Kind::kPeace:
      return Peace();
    default:
      Happen(step);
  }
  return true;
}

}  // namespace kiosk::soak
