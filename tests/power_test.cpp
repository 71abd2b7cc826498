// The power policy on the computer: the scheme, and all of it given back.
#include "tests/support/power.h"

#include "account/teardown.h"
#include "sim/computer.h"
#include "sim/fault_driver.h"

namespace kiosk::power {
namespace {

TEST_F(PowerTest, ThePortalsPolicyIsKeptAsCanonicalText) {
  const std::string line = "INFO power: the portal's policy is now " + Policy(15, 0);
  Receive(Policy(15, 0));
  Receive(
      R"({"schedule":{"days":[5,4,3,2,1],"wakeAt":"07:00","sleepAt":"22:00","enabled":false,"x":1},"sleepMinutes":0,)"
      R"("screenOffMinutes":15})");
  EXPECT_EQ(State(state::kPowerPolicy), Policy(15, 0));
  EXPECT_EQ(State(state::kPowerSource), "tenant");
  EXPECT_EQ(CountLogged(line), 1);
  for (const char* ignored :
       {R"({"powerSource":"device"})", R"({"power":null,"powerSource":"device"})", R"({"power":{}})", "[]"}) {
    const sim::FaultPass pass;
    portal::StorePolicies(Json(ignored));
    EXPECT_EQ(pass.Count(), 0) << ignored;
  }
  for (const char* source : {"Tenant", "", "device "}) {
    Receive(Policy(15, 0), "default");
    Receive(Policy(15, 0), source);
    EXPECT_FALSE(test::HasValue(state::kStateKey, L"PowerSource")) << source;
  }
  const sim::FaultPass pass;
  Receive(Policy(15, 0), "");
  EXPECT_EQ(pass.Count(), 0);
}

TEST_F(PowerTest, SchemeIsSavedOnceAndWrittenWhereItDiffers) {
  EXPECT_TRUE(Apply().empty());  // never got a policy
  Receive(Policy(10, 30));
  sim::SetSchemeIndexes(sim::kBalanced, {600, 600, 1800, 1800, 2, 0});
  EXPECT_TRUE(Apply().empty());            // one that the computer has by itself
  EXPECT_EQ(test::LogTexts().size(), 1U);  // that the portal sent it
  sim::SetSchemeIndexes(sim::kBalanced, kOwn);
  Receive(Policy(15, 0));
  const std::vector<std::string> calls = Apply();
  EXPECT_EQ(calls, (std::vector<std::string>{"RegSetValueExW", "RegFlushKey", "PowerWriteACValueIndex",
                                             "PowerWriteDCValueIndex", "PowerWriteACValueIndex",
                                             "PowerWriteDCValueIndex", "PowerSetActiveScheme"}));
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 2, 0}));
  const std::string prior = std::string("{\"scheme\":\"") + kScheme + R"(","values":[600,300,1800,900,2,0]})";
  EXPECT_EQ(State(state::kPriorPower), prior);
  EXPECT_EQ(CountLogged("INFO power: screen off 15 min, sleep 0 min (0 = never)"), 1);
  EXPECT_TRUE(Apply().empty());
  // Somebody changes one value by hand: it alone is written, and the copies stay those from before.
  sim::SetSchemeIndexes(sim::kBalanced, {900, 60, 0, 0, 2, 0});
  EXPECT_EQ(Apply(), (std::vector<std::string>{"PowerWriteDCValueIndex", "PowerSetActiveScheme"}));
  EXPECT_EQ(State(state::kPriorPower), prior);
  SetString(state::kStateKey, L"PowerLocal", L"no JSON");
  EXPECT_TRUE(Apply().empty());
  test::SetDword(state::kStateKey, L"TeardownPending", 1);
  Receive(Policy(1, 1));
  EXPECT_TRUE(Apply().empty());
}

TEST_F(PowerTest, ASchemeThatCannotBeActivatedIsSaidWhenTheErrorChanges) {
  const auto refused = [](DWORD error) {
    return "ERROR power: cannot re-apply the active scheme (" + std::to_string(error) + ")";
  };
  Receive(Policy(15, 0));
  Apply();
  sim::SetSchemeIndexes(sim::kBalanced, {900, 60, 0, 0, 2, 0});
  NewTexts();
  int at = 2;  // after the value, which is written once; the scheme is made active until that succeeds
  for (const DWORD error : {5UL, 5UL, 1450UL, 1450UL, 5UL}) {
    const sim::FaultPass pass(sim::FaultKind::kFail, std::exchange(at, 1), error);
    ApplyEffectivePowerPolicy();
  }
  EXPECT_EQ(NewTexts(), (std::vector<std::string>{refused(5), refused(1450), refused(5)}));
}

TEST_F(PowerTest, WhatCannotBeSavedIsNotChanged) {
  Receive(Policy(15, 0, "true"));
  sim::SetSchemeIndexes(sim::kBalanced, {600, 300, sim::kNoIndex, 900, sim::kNoIndex, sim::kNoIndex});
  sim::power.readError.Set(ERROR_ACCESS_DENIED);
  const std::vector<std::string> calls = Apply();
  EXPECT_EQ(CountOf(calls, "PowerWriteACValueIndex") + CountOf(calls, "PowerWriteDCValueIndex"), 0);
  EXPECT_EQ(CountLogged("ERROR power: cannot save the computer's own power settings (5); nothing is changed"), 3);
  EXPECT_EQ(State(state::kPriorPower), "");
  EXPECT_EQ(State(state::kPowerError), "wake_unavailable");
  sim::power.readError.Set(0);
  Apply();
  EXPECT_EQ(State(state::kPriorPower),
            std::string("{\"scheme\":\"") + kScheme + R"(","values":[600,300,null,900,null,null]})");
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
  EXPECT_EQ(State(state::kPowerError), "");
  sim::MakeSchemeActive({});
  EXPECT_TRUE(Apply().empty());
  EXPECT_EQ(CountLogged("ERROR power: no active power scheme (2)"), 1);
}

TEST_F(PowerTest, CopiesThatCannotBeReadStayForLater) {
  Receive(Policy(15, 0));
  Apply();
  {
    const sim::FailingReads failing(L"PriorPower", ERROR_NO_SYSTEM_RESOURCES);
    RestorePowerSettings();
  }
  EXPECT_NE(State(state::kPriorPower), "");
  RestorePowerSettings();
  EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), kOwn);
  EXPECT_EQ(State(state::kPriorPower), "");
}

TEST_F(PowerTest, RestoreTakesWhatTheCopiesHold) {
  constexpr const wchar_t* kValues[] = {L"PowerPolicy", L"PowerSource",          L"PowerLocal",
                                        L"PowerError",  L"PowerScheduleApplied", L"PriorPower"};
  const Indexes changed{1, 2, 3, 4, 1, 1};
  std::vector<std::pair<std::string, Indexes>> cases = {
      {R"({"scheme":"#","values":[600,300,1800,900,2,0]})", kOwn},
      {R"({"scheme":"#","values":[600,300,null,null,0,0]})", {600, 300, 3, 4, 0, 0}},
      {R"({"scheme":"#","values":["600",true,[1],{},5]})", {1, 2, 3, 4, 5, 1}},
      {R"({"scheme":"#","values":[4294967295,4294967296,-1,1e308,7.9,-0.5,9]})", {4294967295, 2, 3, 4, 7, 0}}};
  for (const std::string& useless :
       test::Words(R"({"scheme":"#","values":[1,2,3,4,1,1]}|{"scheme":"#","values":{"0":600}}|["#",[600]]|{}|600||)"
                   R"({"scheme":"","values":[600]}|{"scheme":7,"values":[600]}|{"scheme":"{381B4222}","values":[600]}|)"
                   R"({"scheme":"{00000000-0000-0000-0000-000000000001}","values":[600]})")) {
    cases.emplace_back(useless, changed);
  }
  for (auto& [prior, after] : cases) {
    if (const std::size_t at = prior.find('#'); at != std::string::npos) {
      prior.replace(at, 1, kScheme);
    }
    SetUp();
    for (const wchar_t* name : kValues) {
      SetString(state::kStateKey, name, L"x");
    }
    SetString(state::kStateKey, L"PriorPower", win32::ToWide(prior));
    sim::SetSchemeIndexes(sim::kBalanced, changed);
    sim::MakeSchemeActive(sim::kBalanced);
    RestorePowerSettings();
    EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), after) << prior;
    EXPECT_EQ(sim::SchemeIndexes({}), after) << prior;
    const std::vector<std::string> said = {"INFO power: the scheme is back as it was before enrolment"};
    EXPECT_EQ(NewTexts(), after == changed ? std::vector<std::string>() : said) << prior;
    for (const wchar_t* name : kValues) {
      EXPECT_FALSE(test::HasValue(state::kStateKey, name)) << sim::Narrow(name);
    }
  }
}

TEST_F(PowerTest, TeardownGivesBackTheSchemeOfTheFirstChange) {
  const std::string before = sim::DumpMachine();
  Receive(Policy(15, 0, "true"));
  Apply();
  EXPECT_NE(sim::DumpMachine(), before);
  account::RemoveKioskMode(false, "because");
  EXPECT_EQ(sim::DumpMachine(), before);
  test::Enrol("tok", false);
  Receive(Policy(15, 0));
  Apply();
  sim::MakeSchemeActive(sim::kHighPerformance);
  Apply();
  sim::FailTaskMethod(L"Connect");
  account::RemoveKioskMode(false, "because");
  EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), kOwn);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
}

// Whatever call fails, whenever the process ends: applying once more reaches the policy, and the end of kiosk mode the
// computer as it was, save that Windows may have refused to let the values take effect at once.
constexpr wchar_t kDumpFile[] = L"C:\\kiosk-power-dump.txt";
constexpr wchar_t kThrough[] = L"Through";

void PrepareFault() {
  test::ResetComputer();
  test::WriteWholeFile(kDumpFile, sim::DumpMachine());
  test::Enrol("tok", false);
  Receive(Policy(15, 0, "true"));
}

void EndKioskMode(bool mayHaveFailed) {
  RestorePowerSettings();
  const std::string before = test::ReadWholeFile(kDumpFile);
  const std::string now = sim::DumpMachine();
  EXPECT_EQ(std::count(now.begin(), now.end(), '\n'), std::count(before.begin(), before.end(), '\n'));
  EXPECT_TRUE(sim::RegisteredTask(kSleepName).empty() && sim::RegisteredTask(kWakeName).empty());
  EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), kOwn);
  if (!mayHaveFailed) {
    EXPECT_EQ(now, before);
  }
}

TEST(PowerFaults, Apply) {
  sim::RunFaultScenario(
      {.name = L"apply power", .prepare = PrepareFault, .run = ApplyEffectivePowerPolicy, .later = [] {
         Apply();
         EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
         EXPECT_EQ(State(state::kPowerError), "");
         EXPECT_NE(State(state::kPowerScheduleApplied), "");
         EXPECT_NE(State(state::kPriorPower).find("[600,300,1800,900,2,0]"), std::string::npos);
         EXPECT_FALSE(sim::RegisteredTask(kSleepName).empty() || sim::RegisteredTask(kWakeName).empty());
         EXPECT_TRUE(Apply().empty());
         EndKioskMode(false);
       }});
}

TEST(PowerFaults, ClearingAnOverrideWithoutAPolicyOfThePortal) {
  const auto prepare = [] {
    PrepareFault();
    SetString(state::kStateKey, L"PowerLocal", win32::ToWide(State(state::kPowerPolicy)));
    state::DeleteStateValue(state::kPowerPolicy);
    state::DeleteStateValue(state::kPowerSource);
    ApplyEffectivePowerPolicy();
  };
  const auto clear = [] { test::Ask(PowerSet, R"({"useOrganisation":true})"); };
  const auto later = [clear] {
    ApplyEffectivePowerPolicy();
    clear();
    EXPECT_EQ(State(state::kPowerLocal) + State(state::kPriorPower) + State(state::kPowerScheduleApplied), "");
    EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), kOwn);
    EXPECT_TRUE(sim::TaskLines().empty());
    EndKioskMode(sim::ReadNumber(L"Power", kThrough).has_value());
  };
  const auto run = [clear] {
    clear();
    sim::WriteNumber(L"Power", kThrough, 1);
  };
  sim::RunFaultScenario({.name = L"clear the override", .prepare = prepare, .run = run, .later = later});
}

TEST(PowerFaults, Restore) {
  const auto prepare = [] {
    PrepareFault();
    ApplyEffectivePowerPolicy();
  };
  const auto run = [] {
    RestorePowerSettings();
    sim::WriteNumber(L"Power", kThrough, 1);
  };
  const auto later = [] {
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    EndKioskMode(sim::ReadNumber(L"Power", kThrough).has_value());
  };
  sim::RunFaultScenario({.name = L"restore power", .prepare = prepare, .run = run, .later = later});
}

}  // namespace
}  // namespace kiosk::power
