// What people do, and restarts; around.cpp has what happens around them. At the end the table of all steps.
#include "json/parse.h"
#include "power/power_policy_store.h"
#include "sim/accounts.h"
#include "sim/computer.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "sim/power.h"
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

std::string ExitPasswordOr(bool wrong) { return wrong ? "no" : ExitPassword(); }

// The person enters the code in the portal, or leaves it; asks too early, or not at all.
void Pair(Life& life, std::uint32_t number) {
  const std::string code = Member(life.Ask(Person(), R"({"cmd":"pair.begin"})"), "code");
  const std::string check = R"({"cmd":"pair.check","code":")" + code + "\"}";
  if ((number & 1) != 0) {
    life.Ask(Person(), check);
  }
  world.claimed = (number & 6) != 0;
  const std::string reply = life.Ask(Person(), check);
  world.claimed = false;
  Need(reply.find(kTokenMark) == std::string::npos, "secrets: a reply holds the token");
}

void SignIn(Life& /*life*/, std::uint32_t number) {
  const std::wstring name = number == 0 ? L"anna" : L"berta";
  if (const auto user = sim::FindUser(name); user && sim::SessionOf(user->sid) == 0) {
    sim::SignIn(name);
  }
}

void SignOut(Life& /*life*/, std::uint32_t number) {
  if (const std::vector<DWORD> ids = Sessions(); !ids.empty()) {
    sim::SignOut(ids[number % ids.size()]);
  }
}

void SignAllOut() {
  for (const DWORD id : Sessions()) {
    sim::SignOut(id);
  }
}

void Unlock(Life& life, std::uint32_t number) {
  life.unlock =
      Member(life.Ask(Shell(), R"({"cmd":"unlock",)" + test::Credentials(ExitPasswordOr(number == 0)).substr(1)),
             "unlockToken");
}

void Maintenance(Life& life, std::uint32_t number) {
  const std::string credentials =
      number == 3 ? test::Credentials("", life.unlock) : test::Credentials(ExitPasswordOr(number == 0), "");
  life.Ask(Shell(), R"({"cmd":"maintenance",)" + credentials.substr(1));
}

void Setting(Life& life, std::uint32_t number) {
  life.Ask(Shell(), R"({"unlockToken":")" + life.unlock + "\"," + kRequests[number % std::size(kRequests)]);
}

// A version before knew no digest of the secret, and the first start of this one notes it. Where it cannot, whoever
// signs in then is taken for the owner's choice, as docs/registry.md says.
void Upgrade(Life& life, std::uint32_t /*number*/) {
  life.StopService(SERVICE_CONTROL_STOP);
  if (test::Winlogon(L"DefaultUserName") == L"NorvaneKiosk" && !world.stateKeyRefused) {
    state::DeleteStateValue(state::kAutoLogonDigest);
  }
  life.End();
}

void Uninstall(Life& life, std::uint32_t /*number*/) {
  if (world.installed) {
    life.StopService(SERVICE_CONTROL_STOP);
    world.errand = Errand::kUninstall;
    life.End();
  }
}

void Install(Life& life, std::uint32_t /*number*/) {
  if (!world.installed) {
    SetUpProduct();
    world.installed = true;
    life.End();
  }
}

// Hours forwards or backwards, a minute and a half, or summer time begins or ends.
void MoveClock(Life& life, std::uint32_t number) {
  sim::VirtualClock& clock = life.Clock();
  const std::uint64_t hours = std::uint64_t{1 + number / 4 % 70} * 60 * kMinute * 10'000;
  switch (number % 4) {
    case 0:
      clock.SetSystemTime(clock.SystemTime() + hours);
      break;
    case 1:
      clock.SetSystemTime(clock.SystemTime() - hours);
      break;
    case 2:
      clock.SetSystemTime(clock.SystemTime() - 90 * 10'000'000ULL);
      break;
    default:
      world.bias = world.bias == -60 ? -120 : -60;
      clock.SetBias(world.bias);
  }
}

// In order, with the people signed out before or not; for hours or days; or the power goes; or Windows keeps its kernel
// and its services over a shutdown (Fast Startup), and signs in anew.
void Restart(Life& life, std::uint32_t number) {
  constexpr std::uint64_t kHours[] = {0, 0, 0, 0, 0, 8, 20, 100};
  if (number > std::size(kHours)) {
    SignAllOut();
    life.Skip(std::uint64_t{number - 8} * number * 60 * kMinute);
    sim::SignInAutomatically();
  } else if (number == std::size(kHours)) {
    world.boot = true;
    world.ticks = 1;
    life.End();
  } else {
    if (number % 2 != 0) {
      SignAllOut();
    }
    life.Shutdown(40'000 + kHours[number] * 60 * kMinute);
  }
}

// A process that the task scheduler starts; its exit code.
intptr_t RunTask(Errand errand) {
  world.errand = errand;
  SaveWorld();
  const intptr_t code = RunLife();
  world.errand = Errand::kNone;
  SaveWorld();
  if (code == static_cast<intptr_t>(kBrokenExitCode)) {
    Broken(ReadNote(L"Broken"));
  }
  return code;
}

// A night by the schedule: the task that puts the computer to sleep comes late by so many minutes, and when it slept
// the one that wakes it follows.
void Task(Life& life, std::uint32_t number) {
  power::PowerPolicy policy;
  if (sim::AreaNames(L"Tasks").size() != 2 || !power::LoadEffectivePowerPolicy(policy) || !policy.schedule.enabled) {
    return;
  }
  constexpr std::uint64_t kDay = 1440;  // min
  constexpr std::uint64_t kLate[] = {0, 20, 400};
  const std::uint64_t now = life.Clock().SystemTime() / 600'000'000 - static_cast<std::uint64_t>(world.bias);
  life.Skip((policy.schedule.sleepAt + kLate[number % std::size(kLate)] + 1 + kDay - now % kDay) % kDay * kMinute);
  const DWORD sleeps = sim::power.suspends.Get();
  const intptr_t asleep = RunTask(Errand::kSleepNow);
  const bool slept = sim::power.suspends.Get() != sleeps;
  Need(asleep != 0 || slept == (number == 0), "schedule: the computer sleeps late, or not in time");
  if (slept) {
    life.Skip(420 * kMinute);
    sim::power.executionState.Set(0);
    Need(
        RunTask(Errand::kWakeNow) != 0 || sim::power.executionState.Get() == (ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED),
        "schedule: the display stays dark in the morning");
  }
}

// An hour in which nothing is wrong, then a restart, after which the kiosk is to be there. Where the product is not
// installed, a restart and once more the uninstall, as the documents tell the administrator of one that left something.
void Peace(Life& life, std::uint32_t /*number*/) {
  constexpr std::uint32_t kHour = 3660, kAfterRestart = 300;  // s
  if (world.peace == 0) {
    Heal();
    world.peace = 1;
    world.waitLeft = kHour;
    if (!world.installed) {
      world.waitLeft = 0;
      world.errand = Errand::kUninstall;
      life.Shutdown(40'000);
      return;
    }
  }
  if (!world.installed) {
    CheckUninstalled();
    world.peace = 0;
  } else if (life.Wait(world.waitLeft)) {
    CheckPeace();
    world.waitLeft = world.peace == 1 ? kAfterRestart : 0;
    if (world.peace++ == 1) {
      life.Shutdown(40'000);
    } else {
      world.peace = 0;
    }
  }
}

// Weights and limits decide what a seed is; what has no weight stands in lists alone.
constexpr StepKind kSteps[] = {
    {"Wait", 34, 0, [](Life& life, std::uint32_t number) { life.Wait(number); }},
    {"Portal", 8, kOutages, [](Life&, std::uint32_t number) { world.outage = number % kOutages; }},
    {"Revoke", 2, 1, [](Life&, std::uint32_t) { world.valid = 0; }},
    {"Pair", 10, 8, Pair},
    {"Policy", 5, 1U << 20, [](Life&, std::uint32_t number) { world.policy = number; }},
    {"SignIn", 4, 2, SignIn},
    {"SignOut", 4, 4, SignOut},
    {"Unlock", 5, 4, Unlock},
    {"Maintenance", 3, 4, Maintenance},
    {"Restart", 7, 12, Restart},
    {"Kill", 6, 1000,
     [](Life&, std::uint32_t number) {
       world.killIn = 1 + number % 120;
       world.killsPower = number >= 600;
     }},
    {"Fail", 5, 1000, [](Life&, std::uint32_t number) { FailOneChange(number); }},
    {"Disk", 2, 3, [](Life&, std::uint32_t number) { world.disk = number; }},
    {"StateKey", 2, 2, [](Life&, std::uint32_t number) { world.stateKeyRefused = number != 0; }},
    {"Heal", 6, 1, [](Life&, std::uint32_t) { Heal(); }},
    {"Clock", 3, 1000, MoveClock},
    {"Setting", 10, 64, Setting},
    {"Windows", 4, 10, [](Life&, std::uint32_t number) { FailWindows(number); }},
    {"Updates", 5, 1U << 16, [](Life&, std::uint32_t number) { OfferUpdate(number); }},
    {"LogCentre", 3, 6, [](Life&, std::uint32_t number) { world.logOutage = number; }},
    {"Network", 2, 3,
     [](Life&, std::uint32_t number) { sim::Adapter(sim::kFactoryAdapter).cable.Set(number != 0 ? 1 : 0); }},
    {"Client", 2, 2, [](Life&, std::uint32_t number) { SetClient(number != 0); }},
    {"Stranger", 5, 16, [](Life&, std::uint32_t number) { BeAStranger(number); }},
    {"Task", 6, 3, Task},
    {"Upgrade", 2, 1, Upgrade},
    {"Uninstall", 2, 1, Uninstall},
    {"Install", 6, 1, Install},
    {"Memory", 0, 1, [](Life&, std::uint32_t number) { CheckMemory(number); }},
    {"Peace", 2, 1, Peace},
};

}  // namespace

std::span<const StepKind> StepKinds() { return kSteps; }

}  // namespace kiosk::soak
