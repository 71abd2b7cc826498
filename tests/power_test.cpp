// The power policy on the computer: the scheme, the two tasks, the override, and all of it given back.
#include "power/power_scheme.h"

#include "account/teardown.h"
#include "account/unlock_token.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "pipe/dispatch.h"
#include "portal/check_in.h"
#include "power/policy_store.h"
#include "power/power_commands.h"
#include "power/sleep_wake.h"
#include "power/task_scheduler.h"
#include "sim/com.h"
#include "sim/computer.h"
#include "sim/fault_driver.h"
#include "sim/power.h"
#include "sim/tasks.h"
#include "tests/support/kiosk_terminal.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kiosk::power {
namespace {

using sim::Indexes;
using test::CountLogged;
using test::SetString;

constexpr wchar_t kSleepName[] = L"Norvane Kiosk Sleep";
constexpr wchar_t kWakeName[] = L"Norvane Kiosk Wake";
constexpr char kScheme[] = "{381B4222-F694-41F0-9685-FF5BB260DF2E}";
const Indexes kOwn{600, 300, 1800, 900, 2, 0};  // what the computer begins with

std::string Policy(int screenOff, int sleep, const std::string& schedule = "false",
                   const std::string& sleepAt = "22:00", const std::string& days = "[1,2,3,4,5]") {
  return "{\"screenOffMinutes\":" + std::to_string(screenOff) + ",\"sleepMinutes\":" + std::to_string(sleep) +
         ",\"schedule\":{\"enabled\":" + schedule + ",\"sleepAt\":\"" + sleepAt + R"(","wakeAt":"07:00","days":)" +
         days + "}}";
}

json::Value Json(const std::string& text) { return json::Parse(text).value_or(json::Value()); }

void Receive(const std::string& policy, const std::string& source = "tenant") {
  ApplyPortalPowerPolicy(Json("{\"power\":" + policy + ",\"powerSource\":\"" + source + "\"}"));
}

std::string State(const state::StateValue& value) { return win32::ToNarrow(state::ReadStateString(value)); }

void Enrol() {
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "x", 1);
}

// Applies the policy in force and returns which calls changed the machine.
std::vector<std::string> Apply() {
  const sim::FaultPass pass;
  ApplyEffectivePowerPolicy();
  std::vector<std::string> functions;
  for (const sim::ChangeCall& call : pass.Calls()) {
    functions.push_back(call.function);
  }
  return functions;
}

std::ptrdiff_t CountOf(const std::vector<std::string>& texts, std::string_view text) {
  return std::count(texts.begin(), texts.end(), text);
}

class PowerTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    Enrol();
  }
  void TearDown() override { EXPECT_EQ(sim::LiveComObjects(), 0); }

  // Lines of the log since the last time, and how many of these equal `text`.
  std::vector<std::string> NewTexts() {
    std::vector<std::string> texts = test::LogTexts();
    texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(std::exchange(seen_, texts.size())));
    return texts;
  }
  static std::string Set(const std::string& request) { return json::Serialise(HandlePowerSet(Json(request))); }

  std::size_t seen_ = 0;
};

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
    ApplyPortalPowerPolicy(Json(ignored));
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

TEST_F(PowerTest, WhatCannotBeSavedIsNotChanged) {
  Receive(Policy(15, 0, "true"));
  sim::SetSchemeIndexes(sim::kBalanced, {600, 300, sim::kNoIndex, 900, sim::kNoIndex, sim::kNoIndex});
  sim::WriteNumber(L"Power", L"ReadError", ERROR_ACCESS_DENIED);
  const std::vector<std::string> calls = Apply();
  EXPECT_EQ(CountOf(calls, "PowerWriteACValueIndex") + CountOf(calls, "PowerWriteDCValueIndex"), 0);
  EXPECT_EQ(CountLogged("ERROR power: cannot save the computer's own power settings (5); nothing is changed"), 3);
  EXPECT_EQ(State(state::kPriorPower), "");
  EXPECT_EQ(State(state::kPowerError), "wake_unavailable");
  sim::WriteNumber(L"Power", L"ReadError", 0);
  Apply();
  EXPECT_EQ(State(state::kPriorPower),
            std::string("{\"scheme\":\"") + kScheme + R"(","values":[600,300,null,900,null,null]})");
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
  EXPECT_EQ(State(state::kPowerError), "");
  sim::MakeSchemeActive({});
  EXPECT_TRUE(Apply().empty());
  EXPECT_EQ(CountLogged("ERROR power: no active power scheme (2)"), 1);
}

TEST_F(PowerTest, TasksAreRegisteredExactlyAndOnce) {
  Receive(Policy(15, 0, "true"));
  EXPECT_EQ(CountOf(Apply(), "RegisterTaskDefinition"), 2);
  const std::wstring path = OwnExecutablePath();
  const auto expected = [&path](const wchar_t* description, const wchar_t* time, const wchar_t* arguments,
                                const wchar_t* wakes) {
    return sim::TaskProperties{{L"Author", L"Norvane"},
                               {L"Description", description},
                               {L"UserId", L"S-1-5-18"},
                               {L"LogonType", L"5"},
                               {L"RunLevel", L"1"},
                               {L"Enabled", L"1"},
                               {L"StartWhenAvailable", L"0"},
                               {L"DisallowStartIfOnBatteries", L"0"},
                               {L"StopIfGoingOnBatteries", L"0"},
                               {L"ExecutionTimeLimit", L"PT5M"},
                               {L"MultipleInstances", L"2"},
                               {L"WakeToRun", wakes},
                               {L"Trigger", L"3"},
                               {L"StartBoundary", L"2020-01-01T" + std::wstring(time) + L":00"},
                               {L"DaysOfWeek", L"62"},
                               {L"WeeksInterval", L"1"},
                               {L"Action", L"0"},
                               {L"Path", L"\"" + path + L"\""},
                               {L"Arguments", arguments},
                               {L"Flags", L"6"},
                               {L"User", L"S-1-5-18"},
                               {L"Logon", L"5"}};
  };
  EXPECT_EQ(sim::RegisteredTask(kSleepName),
            expected(L"Puts this kiosk terminal to sleep on its power schedule.", L"22:00", L"--sleep-now", L"0"));
  EXPECT_EQ(sim::RegisteredTask(kWakeName),
            expected(L"Wakes this kiosk terminal on its power schedule.", L"07:00", L"--wake-now", L"1"));
  EXPECT_EQ(state::ReadStateString(state::kPowerScheduleApplied), L"22:00|07:00|62|" + path);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
  EXPECT_EQ(CountLogged("INFO power: \"Norvane Kiosk Sleep\" at 22:00 on days 0x3e"), 1);
  EXPECT_EQ(CountLogged("INFO power: \"Norvane Kiosk Wake\" at 07:00 on days 0x3e"), 1);
  const std::size_t lines = test::LogTexts().size();
  EXPECT_TRUE(Apply().empty());
  EXPECT_EQ(test::LogTexts().size(), lines);

  for (const wchar_t* name : {kSleepName, kWakeName}) {
    sim::DeleteRegisteredTask(name);
    EXPECT_EQ(CountOf(Apply(), "RegisterTaskDefinition"), 2);
  }
  SetString(state::kStateKey, L"PowerScheduleApplied", L"22:00|07:00|62|C:\\Elsewhere\\NorvaneKiosk.exe");
  EXPECT_EQ(CountOf(Apply(), "RegisterTaskDefinition"), 2);
  Receive(Policy(15, 0, "true", "21:05", "[0,6]"));
  EXPECT_EQ(CountOf(Apply(), "RegisterTaskDefinition"), 2);
  EXPECT_EQ(sim::RegisteredTask(kSleepName)[L"StartBoundary"], L"2020-01-01T21:05:00");
  EXPECT_EQ(sim::RegisteredTask(kWakeName)[L"DaysOfWeek"], L"65");

  Receive(Policy(15, 0));
  EXPECT_EQ(Apply(), (std::vector<std::string>{"DeleteTask", "DeleteTask", "RegDeleteKeyValueW"}));
  EXPECT_EQ(sim::TaskLines().size() + State(state::kPowerScheduleApplied).size(), 0U);
  EXPECT_EQ(CountLogged("INFO power: removed the task \"Norvane Kiosk Sleep\""), 1);
  EXPECT_TRUE(Apply().empty());
}

TEST_F(PowerTest, WhatFailsInTaskSchedulerIsSaidAndTriedAgain) {
  struct {
    const wchar_t* method;
    const char* line;  // without "ERROR power: " and " (0x80070005)"
    bool wakes;        // the wake task is registered all the same
  } const cases[] = {
      {L"CoCreateInstance", "Task Scheduler unavailable", false},
      {L"Connect", "cannot connect to Task Scheduler", false},
      {L"GetFolder", "no Task Scheduler root folder", false},
      {L"NewTask", "cannot create \"Norvane Kiosk Wake\"", false},
      {L"get_RegistrationInfo", nullptr, true},
      {L"put_RunLevel", nullptr, true},
      {L"get_Settings", "no settings for \"Norvane Kiosk Wake\"", false},
      {L"put_Enabled", nullptr, true},
      {L"put_WakeToRun", "\"Norvane Kiosk Wake\" cannot wake the computer", false},
      {L"get_Triggers", "no weekly trigger for \"Norvane Kiosk Wake\"", false},
      {L"put_StartBoundary", "cannot schedule \"Norvane Kiosk Wake\"", false},
      {L"put_WeeksInterval", "cannot schedule \"Norvane Kiosk Wake\"", false},
      {L"get_Actions", "no action for \"Norvane Kiosk Wake\"", false},
      {L"put_Arguments", "cannot set the action of \"Norvane Kiosk Wake\"", false},
      {L"RegisterTaskDefinition Norvane Kiosk Wake", "cannot register \"Norvane Kiosk Wake\"", false},
      {L"RegisterTaskDefinition Norvane Kiosk Sleep", "cannot register \"Norvane Kiosk Sleep\"", true},
  };
  for (const auto& each : cases) {
    SetUp();
    Receive(Policy(15, 0, "true"));
    sim::FailTaskMethod(each.method);
    NewTexts();
    Apply();
    const std::vector<std::string> texts = NewTexts();
    EXPECT_EQ(State(state::kPowerError), each.wakes ? "" : "wake_unavailable") << each.method;
    EXPECT_EQ(CountOf(texts, "WARN power: wake_unavailable"), each.wakes ? 0 : 1);
    EXPECT_EQ(State(state::kPowerScheduleApplied).empty(), each.line != nullptr) << each.method;
    if (each.line != nullptr) {
      EXPECT_EQ(CountOf(texts, std::string("ERROR power: ") + each.line + " (0x80070005)"), 1) << each.method;
    }
    Apply();
    EXPECT_EQ(CountOf(NewTexts(), "WARN power: wake_unavailable"), 0);  // said once
    sim::FailTaskMethod(L"");
    Apply();
    EXPECT_EQ(State(state::kPowerError), "");
    EXPECT_NE(State(state::kPowerScheduleApplied), "");
    EXPECT_EQ(sim::RegisteredTask(kWakeName)[L"WakeToRun"], L"1");
  }
}

TEST_F(PowerTest, ComputersThatCannotWakeSaySo) {
  struct {
    bool unknown, alwaysConnected;
    DWORD realTimeClockWake;
    const char* error;
  } const cases[] = {{false, false, PowerSystemUnspecified, "wake_unavailable"},
                     {false, true, PowerSystemUnspecified, ""},
                     {false, false, PowerSystemHibernate, ""},
                     {true, false, PowerSystemUnspecified, ""}};
  for (const auto& each : cases) {
    SetUp();
    sim::WriteNumber(L"Power", L"CapabilitiesUnknown", each.unknown);
    sim::WriteNumber(L"Power", L"AlwaysConnected", each.alwaysConnected);
    sim::WriteNumber(L"Power", L"RtcWake", each.realTimeClockWake);
    Receive(Policy(15, 0, "true"));
    NewTexts();
    Apply();
    EXPECT_EQ(State(state::kPowerError), each.error);
    EXPECT_EQ(CountOf(NewTexts(), "WARN power: this computer reports no wake timer support"),
              *each.error != '\0' ? 1 : 0);
    EXPECT_FALSE(sim::RegisteredTask(kSleepName).empty() || sim::RegisteredTask(kWakeName).empty());
    EXPECT_TRUE(Apply().empty());
  }
}

TEST_F(PowerTest, RestoreTakesWhatTheCopiesHold) {
  const Indexes changed{1, 2, 3, 4, 1, 1};
  struct {
    const char* prior;
    Indexes after;
  } const cases[] = {
      {R"({"scheme":"#","values":[600,300,1800,900,2,0]})", kOwn},
      {R"({"scheme":"#","values":[600,300,null,null,0,0]})", {600, 300, 3, 4, 0, 0}},
      {R"({"scheme":"#","values":["600",true,[1],{},5]})", {1, 2, 3, 4, 5, 1}},
      {R"({"scheme":"#","values":[4294967295,4294967296,-1,1e308,7.9,-0.5,9]})", {4294967295, 2, 3, 4, 7, 0}},
      {R"({"scheme":"#","values":[1,2,3,4,1,1]})", changed},
      {R"({"scheme":"#","values":{"0":600}})", changed},
      {R"({"scheme":"","values":[600]})", changed},
      {R"({"scheme":7,"values":[600]})", changed},
      {R"({"scheme":"{381B4222}","values":[600]})", changed},
      {R"({"scheme":"{00000000-0000-0000-0000-000000000001}","values":[600]})", changed},
      {R"(["#",[600]])", changed},
      {"{}", changed},
      {"600", changed},
      {"", changed},
  };
  for (const auto& each : cases) {
    std::string prior = each.prior;
    if (const std::size_t at = prior.find('#'); at != std::string::npos) {
      prior.replace(at, 1, kScheme);
    }
    SetUp();
    for (const wchar_t* name :
         {L"PowerPolicy", L"PowerSource", L"PowerLocal", L"PowerError", L"PowerScheduleApplied"}) {
      SetString(state::kStateKey, name, L"x");
    }
    SetString(state::kStateKey, L"PriorPower", win32::ToWide(prior));
    sim::SetSchemeIndexes(sim::kBalanced, changed);
    sim::MakeSchemeActive(sim::kBalanced);
    RestorePowerSettings();
    EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), each.after) << prior;
    EXPECT_EQ(sim::SchemeIndexes({}), each.after) << prior;
    const std::vector<std::string> said = {"INFO power: the scheme is back as it was before enrolment"};
    EXPECT_EQ(NewTexts(), each.after == changed ? std::vector<std::string>() : said) << prior;
    for (const wchar_t* name :
         {L"PowerPolicy", L"PowerSource", L"PowerLocal", L"PowerError", L"PowerScheduleApplied", L"PriorPower"}) {
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
  Enrol();
  Receive(Policy(15, 0));
  Apply();
  sim::MakeSchemeActive(sim::kHighPerformance);
  Apply();
  sim::FailTaskMethod(L"Connect");
  account::RemoveKioskMode(false, "because");
  EXPECT_EQ(sim::SchemeIndexes(sim::kBalanced), kOwn);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{900, 900, 0, 0, 1, 1}));
}

TEST_F(PowerTest, OverrideAtTheTerminal) {
  const std::string defaults = Policy(15, 0);
  EXPECT_EQ(json::Serialise(HandlePowerGet()), R"({"ok":true,"policy":)" + defaults +
                                                   R"(,"source":"default","local":null,"effective":)" + defaults +
                                                   R"(,"error":null})");
  const std::string portal = Policy(20, 30, "false", "20:15", "[2]");
  Receive(portal, "device");
  const std::string local = Policy(240, 0, "false", "20:15", "[2]");
  SetString(state::kStateKey, L"PowerError", L"old");
  const std::string withLocal = R"({"ok":true,"policy":)" + portal + R"(,"source":"device","local":)" + local +
                                R"(,"effective":)" + local + R"(,"error":null})";
  EXPECT_EQ(Set(R"({"screenOffMinutes":240,"sleepMinutes":0,"local":true})"), withLocal);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{14400, 14400, 0, 0, 2, 0}));
  sim::SetSchemeIndexes(sim::kBalanced, kOwn);
  EXPECT_EQ(Set(R"({"screenOffMinutes":240,"sleepMinutes":0,"schedule":null,"useOrganisation":false})"), withLocal);
  EXPECT_EQ(sim::SchemeIndexes({})[0], 14400U);
  EXPECT_EQ(CountLogged("INFO power: local override " + local), 1);
  Receive(Policy(1, 1));
  EXPECT_TRUE(Apply().empty());  // the override wins

  const std::string minutes = "WARN power.set refused: minutes must be whole numbers from 0 to 240";
  const std::string schedule = "WARN power.set refused: invalid schedule";
  struct {
    const char* request;
    const std::string* line;
  } const refused[] = {{R"({"screenOffMinutes":241,"sleepMinutes":0})", &minutes},
                       {R"({"screenOffMinutes":-1,"sleepMinutes":0})", &minutes},
                       {R"({"screenOffMinutes":1,"sleepMinutes":7.5})", &minutes},
                       {R"({"screenOffMinutes":1})", &minutes},
                       {"{}", &minutes},
                       {R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":{"enabled":true}})", &schedule},
                       {R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":false})", &schedule},
                       {R"({"screenOffMinutes":1,"sleepMinutes":2,"local":false})", nullptr},
                       {R"({"screenOffMinutes":1,"sleepMinutes":2,"local":1})", nullptr},
                       {R"({"useOrganisation":"yes"})", nullptr},
                       {R"({"useOrganisation":1})", nullptr}};
  for (const auto& each : refused) {
    const std::size_t lines = test::LogTexts().size();
    const sim::FaultPass pass;
    EXPECT_EQ(Set(each.request), R"({"ok":false,"error":"invalid"})") << each.request;
    EXPECT_EQ(pass.Count(), 0) << each.request;
    EXPECT_EQ(test::LogTexts().size(), lines + (each.line != nullptr ? 1 : 0)) << each.request;
    if (each.line != nullptr) {
      EXPECT_EQ(test::LogTexts().back(), *each.line);
    }
  }
  sim::FailTaskMethod(L"Connect");
  EXPECT_NE(Set(R"({"screenOffMinutes":5,"sleepMinutes":6,"schedule":)"
                R"({"enabled":true,"sleepAt":"01:00","wakeAt":"02:00","days":[0]}})")
                .find(R"("error":"wake_unavailable")"),
            std::string::npos);
  for (int twice = 0; twice < 2; ++twice) {
    EXPECT_NE(Set(R"({"useOrganisation":true})").find(R"("local":null)"), std::string::npos);
  }
  EXPECT_EQ(CountLogged("INFO power: the local override is cleared; following the portal"), 1);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{60, 60, 60, 60, 2, 0}));

  state::DeleteStateValue(state::kDeviceToken);
  const sim::FaultPass pass;
  for (const char* request : {R"({"useOrganisation":true})", R"({"screenOffMinutes":1,"sleepMinutes":2})", "{}"}) {
    EXPECT_EQ(Set(request), R"({"ok":false,"error":"not_enrolled"})");
  }
  EXPECT_EQ(pass.Count(), 0);
}

TEST_F(PowerTest, SleepAndWakeRuns) {
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(CountLogged("INFO power: scheduled sleep"), 1);
  EXPECT_EQ(CountLogged("INFO Kiosk shutting down"), 1);
  const win32::KernelHandle live(CreateEventW(nullptr, TRUE, FALSE, L"Global\\NorvaneStreamSessionActive"));
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(sim::ReadNumber(L"Power", L"Suspends"), 2U);
  SetEvent(live.Get());
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(sim::ReadNumber(L"Power", L"Suspends"), 2U);
  EXPECT_EQ(CountLogged("WARN power: scheduled sleep skipped, a stream session is live"), 1);
  ResetEvent(live.Get());
  sim::WriteNumber(L"Power", L"SuspendError", ERROR_NOT_SUPPORTED);
  EXPECT_EQ(SleepNow(), 1);
  EXPECT_EQ(CountLogged("ERROR power: SetSuspendState failed (50)"), 1);
  const std::size_t lines = test::LogTexts().size();
  EXPECT_EQ(WakeNow(), 0);
  EXPECT_EQ(sim::ReadNumber(L"Power", L"ExecutionState"), DWORD{ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED});
  EXPECT_EQ(test::LogTexts().size(), lines);
}

using PowerCheckIn = test::KioskTerminal;

TEST_F(PowerCheckIn, CarriesTheOverrideAndTheError) {
  const auto body = [this] {
    EXPECT_EQ(portal::CheckIn("tok").error, "");
    return portal_.Requests().back().body;
  };
  const std::string version = body();
  answer_ = {.body = R"({"status":"enrolled","power":)" + Policy(5, 6) + R"(,"powerSource":"device"})"};
  EXPECT_EQ(body(), version);
  EXPECT_EQ(State(state::kPowerPolicy), Policy(5, 6));
  {
    const sim::FaultPass pass;
    portal::CheckIn("tok");
    for (const sim::ChangeCall& call : pass.Calls()) {
      EXPECT_TRUE(call.object.ends_with(L"UnknownSince")) << call.Text();
    }
  }
  SetString(state::kStateKey, L"PowerLocal", win32::ToWide(" " + Policy(7, 8)));
  SetString(state::kStateKey, L"PowerError", L"wake_unavailable");
  EXPECT_EQ(body(), version.substr(0, version.size() - 1) + ",\"powerLocal\":" + Policy(7, 8) +
                        R"(,"powerError":"wake_unavailable"})");
  SetString(state::kStateKey, L"PowerLocal", L"[]");
  EXPECT_EQ(body(), version.substr(0, version.size() - 1) + R"(,"powerError":"wake_unavailable"})");
}

TEST_F(PowerCheckIn, CommandsWantUnlockedSettings) {
  const pipe::CallerRecord kiosk{.isInteractive = true, .isKioskAccount = true, .sessionId = test::kKioskSession};
  const text::Secret unlock = account::NewUnlockToken(test::kKioskSession);
  json::PostReplyAction after = nullptr;
  const auto ask = [&](const pipe::CallerRecord& caller, const std::string& command, const std::string& token) {
    const json::Value reply =
        pipe::Dispatch({nullptr, caller}, "{\"cmd\":\"" + command + "\",\"unlockToken\":\"" + token + "\"}", after);
    return json::Member(reply, "ok").boolean() ? std::string("ok") : json::Member(reply, "error").text();
  };
  pipe::CallerRecord other = kiosk;
  other.isKioskAccount = false;
  for (const char* command : {"power.get", "power.set"}) {
    EXPECT_EQ(ask(other, command, unlock.Get()), "not_permitted");
    EXPECT_EQ(ask(kiosk, command, "wrong"), "not_unlocked");
  }
  EXPECT_EQ(ask(kiosk, "power.get", unlock.Get()), "ok");
  EXPECT_EQ(ask(kiosk, "power.set", unlock.Get()), "invalid");
}

// Whatever call fails, whenever the process ends: applying once more reaches the policy, and the end of kiosk mode the
// computer as it was, save that Windows may have refused to let the values take effect at once.
constexpr wchar_t kDumpFile[] = L"C:\\kiosk-power-dump.txt";
constexpr wchar_t kThrough[] = L"Through";

void PrepareFault() {
  struct Machine : test::CleanMachine {
    void TestBody() override {}
    using CleanMachine::SetUp;
  };
  Machine().SetUp();
  test::WriteWholeFile(kDumpFile, sim::DumpMachine());
  Enrol();
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

TEST(PowerFaults, Restore) {
  sim::RunFaultScenario({.name = L"restore power",
                         .prepare =
                             [] {
                               PrepareFault();
                               ApplyEffectivePowerPolicy();
                             },
                         .run =
                             [] {
                               RestorePowerSettings();
                               sim::WriteNumber(L"Power", kThrough, 1);
                             },
                         .later =
                             [] {
                               ASSERT_EQ(state::ProtectStateKey().what, nullptr);
                               EndKioskMode(sim::ReadNumber(L"Power", kThrough).has_value());
                             }});
}

}  // namespace
}  // namespace kiosk::power
