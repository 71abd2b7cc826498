// No moment is a bad one to be cut short: whatever call of a pairing or a removal fails, whenever the process ends, the
// next start and whoever asked for it asking again come to a good end, and a removal gives the computer back.
#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/maintenance.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "enrolment/device_token.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "portal/pairing.h"
#include "portal/policies.h"
#include "power/power_scheme.h"
#include "proxy/proxy.h"
#include "sim/computer.h"
#include "sim/fault_driver.h"
#include "sim/profiles.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

namespace kiosk::account {
namespace {

constexpr wchar_t kDumpFile[] = L"C:\\kiosk-dump-before.txt";

// What a removal does once and not again. Such a call that fails costs the one object that it was for: for every call
// in this table exactly one thing differs in the end, at or below the object of the call, and for all other calls
// nothing does.
constexpr char kPutBackOnce[] = "trying until it works would keep all other settings from their owner for as long";
constexpr char kSeenThrough[] = "means nothing without an account, and the next enrolment deletes or rewrites it";
const struct {
  const char* call;          // how its text begins, in small letters
  const char* why;           // null: nothing is left, since it is not there, or tried twice
  bool uninstallToo = true;  // false: an uninstall deletes the whole key
} kCostsItsObject[] = {
    {"lsastoreprivatedata(defaultpassword", "it opens no account any more, and the next enrolment replaces it"},
    {R"(regdeletekeyvaluew(hklm\software\microsoft\windows\currentversion\policies\system\hidefastuserswitching)",
     kPutBackOnce},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\priorpower)", nullptr},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\priorproxy)", nullptr},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\appliedproxy)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\powerpolicy)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\powerscheduleapplied)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\prior)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\owns)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\autologon)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\provisioned)", kSeenThrough, false},
    {R"(regdeletekeyvaluew(hklm\software\norvane\tessaly\kiosk\accountsid)", kSeenThrough, false},
};

// The object of the failed call if it may differ now; empty: nothing may.
std::string MayDiffer(bool uninstalled) {
  const std::string call = test::Lower(sim::FailedCall());
  for (const auto& each : kCostsItsObject) {
    if (call.starts_with(each.call) && (each.uninstallToo || !uninstalled)) {
      if (each.why == nullptr) {
        return {};
      }
      const std::size_t object = call.find('(') + 1;
      return (call.starts_with("lsa") ? "secret " : "") + call.substr(object, call.size() - 1 - object);
    }
  }
  return {};
}

void ExpectGivenBack(const std::string& before, bool removal, bool uninstalled) {
  std::set<std::string> differing = test::Differences(before);
  // The mark of automatic sign-in stays with the copies that it vouches for: without them it would cost the owner all.
  if (std::erase_if(differing, [](const std::string& name) { return name.ends_with("\\ownsautologon"); }) != 0) {
    EXPECT_EQ(std::erase_if(differing,
                            [](const std::string& name) {
                              return name.find("\\kiosk\\prior") != std::string::npos ||
                                     name.ends_with("\\autologonrestoring");
                            }),
              9U);
    differing.insert(R"(hklm\software\norvane\tessaly\kiosk\ownsautologon)");
  }
  const std::string object = removal ? MayDiffer(uninstalled) : std::string();
  if (object.empty()) {
    EXPECT_EQ(differing, std::set<std::string>{}) << sim::FailedCall();
    return;
  }
  // The names are written twice, first the kiosk's and then the owner's, and only the second counts.
  const bool mayBeName = object.ends_with("\\winlogon") || object.find("\\winlogon\\default") != std::string::npos;
  if (differing.empty() && mayBeName) {
    return;
  }
  EXPECT_TRUE(differing.size() == 1 && differing.begin()->starts_with(object))
      << sim::FailedCall() << testing::PrintToString(differing);
  // Whatever was left behind, another life as a kiosk costs the owner nothing more.
  const std::string between = sim::DumpMachine();
  test::Enrol("tok-2", false);
  // The kiosk's switch beside the owner's name looks like a choice of the owner's.
  EXPECT_EQ(ProvisionKioskAccount("tok-2"), differing.begin()->ends_with("\\autoadminlogon") ? "autologon_in_use" : "");
  RemoveKioskMode(false, "because");
  EXPECT_EQ(test::Differences(object.starts_with("secret") ? before : between), std::set<std::string>{});
}

// All that the portal and the person at the terminal may have had changed.
void UseAllOfTheTerminal() {
  sim::SignIn(L"NorvaneKiosk");
  portal::StorePolicies(json::Parse(R"({"power":{"screenOffMinutes":5,"sleepMinutes":6,"schedule":)"
                                    R"({"enabled":true,"sleepAt":"22:00","wakeAt":"07:00","days":[1]}}})")
                            .value_or(json::Value()));
  power::ApplyEffectivePowerPolicy();
  test::Ask(proxy::ProxySet, R"({"mode":"manual","server":"proxy.test:1"})");
}

// The console's last user is the one whom Windows names for automatic sign-in, whoever that was meant for.
void AnnaComesAndGoes() { sim::SignOut(sim::SignIn(L"anna")); }

struct KioskScenario {
  const wchar_t* name;
  std::function<void()> prepare;  // on an enrolled terminal whose kiosk is signed in, or an owner's computer
  std::function<void()> run;
  std::function<void()> askAgain;  // after the next start; in the end there must be no kiosk
  bool enrolled = true, uninstalls = false;
  int part = 0, parts = 1;
};

void EveryPointGivesTheComputerBack(const KioskScenario& scenario) {
  const sim::VirtualClock clock(test::kMorning);
  const auto prepare = [&] {
    test::ResetComputer();
    test::OwnComputer();
    AnnaComesAndGoes();
    test::WriteWholeFile(kDumpFile, sim::DumpMachine());
    test::Enrol(scenario.enrolled ? "tok-1" : "", scenario.enrolled);
    if (scenario.enrolled) {
      UseAllOfTheTerminal();
    }
    scenario.prepare();
  };
  const auto later = [&] {
    if (sim::FailedCall().empty()) {
      sim::RestartComputer();
      AnnaComesAndGoes();
    }
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    FinishPendingRemoval();
    RepairAutoLogon();
    RepairMaintenance();
    TrimPrivilegedGroups();
    ApplyKioskPolicies();
    scenario.askAgain();
    sim::EndAllSessions();
    EXPECT_FALSE(sim::FindUser(L"NorvaneKiosk"));
    EXPECT_FALSE(state::TokenIsStored() || IsKioskProvisioned());
    ExpectGivenBack(test::ReadWholeFile(kDumpFile), scenario.enrolled, scenario.uninstalls);
  };
  sim::RunFaultScenario({.name = scenario.name,
                         .prepare = prepare,
                         .run = scenario.run,
                         .later = later,
                         .part = scenario.part,
                         .parts = scenario.parts});
}

constexpr char kCode[] = R"({"code":"ABCD1234"})";

std::string Pair() {
  test::Ask(portal::PairBegin);
  return json::Serialise(test::Ask(portal::PairCheck, kCode));
}

// What the worker does when the portal knows the terminal; or else the person at the terminal pairs it once more.
void ComeToKioskModeAndLeaveIt() {
  if (state::FlagIsOn(state::kProvisioned)) {
    test::ExpectProvisioned();
  }
  EXPECT_LE(sim::UserNames().size(), 2U);
  if (const std::string token = enrolment::ReadDeviceToken().Get(); !token.empty()) {
    EXPECT_EQ(ProvisionIfNeeded(token), "");
  } else {
    EXPECT_EQ(Pair(), R"({"ok":true,"paired":true,"provisioned":true,"restarting":true,"restartInSeconds":10})");
  }
  test::ExpectProvisioned();
  EXPECT_EQ(sim::UserNames().size(), 2U);
  EXPECT_FALSE(sim::HiveLoaded(L"NorvaneKioskProvision")) << "the kiosk would be signed in with a temporary profile";
  EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";
  RemoveKioskMode(false, "because");
}

class PairingFaults : public testing::TestWithParam<int> {};
constexpr int kParts = 6;
INSTANTIATE_TEST_SUITE_P(Part, PairingFaults, testing::Range(0, kParts));

TEST_P(PairingFaults, APairingComesToItsEnd) {
  sim::ScriptedPortal portal;
  portal.On(L"POST", test::kPairPath, test::kPairingBegins);
  portal.On(L"GET", test::kClaimPath, sim::Response{.body = R"({"deviceToken":"tok-1"})"});
  portal.On(L"POST", test::kCheckInPath, sim::Response{.body = R"({"status":"enrolled","name":"Hall"})"});
  const auto prepare = [] {
    test::Ask(portal::PairBegin);
    // What an earlier enrolment may have left.
    test::SetDword(state::kStateKey, L"TeardownPending", 1);
    test::SetString(state::kStateKey, L"UnknownSince", L"x");
  };
  EveryPointGivesTheComputerBack({.name = L"pairing",
                                  .prepare = prepare,
                                  .run = [] { test::Ask(portal::PairCheck, kCode); },
                                  .askAgain = ComeToKioskModeAndLeaveIt,
                                  .enrolled = false,
                                  .part = GetParam(),
                                  .parts = kParts});
}

TEST(RemovalFaults, Revocation) {
  const auto answerAsBefore = [] {
    if (state::TokenIsStored()) {
      const std::string token = "tok-1";
      RemoveKioskMode(false, "because", &token);
    }
  };
  EveryPointGivesTheComputerBack({.name = L"revocation",
                                  .prepare = [] { sim::SignIn(L"anna"); },
                                  .run = [] { RemoveKioskMode(false, "because"); },
                                  .askAgain = answerAsBefore});
}

TEST(RemovalFaults, PendingRemoval) {
  const auto removeWhileBusy = [] {
    sim::profilesBusy.Set(INFINITE);
    RemoveKioskMode(false, "because");
    sim::profilesBusy.Set(0);
    EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending));
  };
  EveryPointGivesTheComputerBack(
      {.name = L"pending removal", .prepare = removeWhileBusy, .run = FinishPendingRemoval, .askAgain = [] {}});
}

TEST(RemovalFaults, Uninstall) {
  const auto uninstall = [] { RemoveKioskMode(true, "uninstalled"); };
  EveryPointGivesTheComputerBack({.name = L"uninstall",
                                  .prepare = [] { sim::SignIn(L"anna"); },
                                  .run = uninstall,
                                  .askAgain = uninstall,
                                  .uninstalls = true});
}

}  // namespace
}  // namespace kiosk::account
