// The power policy's two tasks, what keeps a woken computer awake, and the terminal's own commands.
#include "tests/support/power.h"

#include "portal/check_in.h"
#include "power/sleep_wake.h"
#include "power/stay_awake.h"
#include "sim/clock.h"
#include "tests/support/command.h"
#include "win32/privilege.h"
#include "win32/program_path.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <powrprof.h>

namespace kiosk::power {
namespace {

using PowerTasksTest = PowerTest;

TEST_F(PowerTasksTest, TasksAreRegisteredExactlyAndOnce) {
  Receive(Policy(15, 0, "true"));
  EXPECT_EQ(CountOf(Apply(), "RegisterTaskDefinition"), 2);
  const std::wstring path = win32::StartablePath();
  const auto expected = [&path](const std::wstring& description, const std::wstring& time,
                                const std::wstring& arguments, const std::wstring& wakes) {
    return L"Action=0 Arguments=" + arguments + L" Author=Norvane DaysOfWeek=62 Description=" + description +
           L" DisallowStartIfOnBatteries=0 Enabled=1 ExecutionTimeLimit=PT5M Flags=6 Logon=5 LogonType=5"
           L" MultipleInstances=2 Path=\"" +
           path + L"\" RunLevel=1 StartBoundary=2020-01-01T" + time +
           L":00 StartWhenAvailable=0 StopIfGoingOnBatteries=0 Trigger=3 User=S-1-5-18 UserId=S-1-5-18 WakeToRun=" +
           wakes + L" WeeksInterval=1 ";
  };
  const auto registered = [](const wchar_t* name) {
    std::wstring text;
    for (const auto& [property, value] : sim::RegisteredTask(name)) {
      text += property + L"=" + value + L" ";
    }
    return text;
  };
  EXPECT_EQ(registered(kSleepName),
            expected(L"Puts this kiosk terminal to sleep on its power schedule.", L"22:00", L"--sleep-now", L"0"));
  EXPECT_EQ(registered(kWakeName),
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

TEST_F(PowerTasksTest, WhatFailsInTaskSchedulerIsSaidAndTriedAgain) {
  const std::string wake = "\"Norvane Kiosk Wake\"";
  struct {
    const wchar_t* method;
    std::string line;  // without "ERROR power: " and " (0x80070005)"; empty: nothing fails by it
    bool wakes;        // the wake task is registered all the same
  } const cases[] = {{L"CoCreateInstance", "Task Scheduler unavailable", false},
                     {L"Connect", "cannot connect to Task Scheduler", false},
                     {L"GetFolder", "no Task Scheduler root folder", false},
                     {L"NewTask", "cannot create " + wake, false},
                     {L"get_RegistrationInfo", "", true},
                     {L"put_RunLevel", "", true},
                     {L"get_Settings", "no settings for " + wake, false},
                     {L"put_Enabled", "", true},
                     {L"put_WakeToRun", wake + " cannot wake the computer", false},
                     {L"get_Triggers", "no weekly trigger for " + wake, false},
                     {L"put_StartBoundary", "cannot schedule " + wake, false},
                     {L"put_WeeksInterval", "cannot schedule " + wake, false},
                     {L"get_Actions", "no action for " + wake, false},
                     {L"put_Arguments", "cannot set the action of " + wake, false},
                     {L"RegisterTaskDefinition Norvane Kiosk Wake", "cannot register " + wake, false},
                     {L"RegisterTaskDefinition Norvane Kiosk Sleep", "cannot register \"Norvane Kiosk Sleep\"", true}};
  for (const auto& each : cases) {
    SetUp();
    Receive(Policy(15, 0, "true"));
    sim::FailTaskMethod(each.method);
    NewTexts();
    Apply();
    const std::vector<std::string> texts = NewTexts();
    EXPECT_EQ(State(state::kPowerError), each.wakes ? "" : "wake_unavailable") << each.method;
    EXPECT_EQ(CountOf(texts, "WARN power: wake_unavailable"), each.wakes ? 0 : 1);
    EXPECT_EQ(State(state::kPowerScheduleApplied).empty(), !each.line.empty()) << each.method;
    EXPECT_EQ(CountOf(texts, "ERROR power: " + each.line + " (0x80070005)"), each.line.empty() ? 0 : 1) << each.method;
    Apply();
    EXPECT_EQ(CountOf(NewTexts(), "WARN power: wake_unavailable"), 0);  // said once
    sim::FailTaskMethod(L"");
    Apply();
    EXPECT_EQ(State(state::kPowerError), "");
    EXPECT_NE(State(state::kPowerScheduleApplied), "");
    EXPECT_EQ(sim::RegisteredTask(kWakeName)[L"WakeToRun"], L"1");
  }
}

TEST_F(PowerTasksTest, ComputersThatCannotWakeSaySo) {
  struct {
    bool unknown, alwaysConnected;
    DWORD realTimeClockWake;
    bool can;
  } const cases[] = {{false, false, PowerSystemUnspecified, false},
                     {false, true, PowerSystemUnspecified, true},
                     {false, false, PowerSystemHibernate, true},
                     {true, false, PowerSystemUnspecified, true}};
  for (const auto& each : cases) {
    SetUp();
    sim::power.capabilitiesUnknown.Set(each.unknown);
    sim::power.alwaysConnected.Set(each.alwaysConnected);
    sim::power.rtcWake.Set(each.realTimeClockWake);
    Receive(Policy(15, 0, "true"));
    NewTexts();
    Apply();
    EXPECT_EQ(State(state::kPowerError), each.can ? "" : "wake_unavailable");
    EXPECT_EQ(CountOf(NewTexts(), "WARN power: this computer reports no wake timer support"), each.can ? 0 : 1);
    EXPECT_FALSE(sim::RegisteredTask(kSleepName).empty() || sim::RegisteredTask(kWakeName).empty());
    EXPECT_TRUE(Apply().empty());
  }
}

constexpr char kNightly[] =
    R"({"screenOffMinutes":5,"sleepMinutes":6,"schedule":{"enabled":true,"sleepAt":"01:00","wakeAt":"02:00","days":[0]}})";
constexpr char kCleared[] = R"({"useOrganisation":true})";

TEST_F(PowerTasksTest, OverrideAtTheTerminal) {
  const std::string defaults = Policy(15, 0);
  EXPECT_EQ(json::Serialise(test::Ask(PowerGet)), R"({"ok":true,"policy":)" + defaults +
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

  // The portal's again, whatever Task Scheduler says.
  sim::FailTaskMethod(L"Connect");
  EXPECT_NE(Set(kNightly).find(R"("error":"wake_unavailable")"), std::string::npos);
  for (int twice = 0; twice < 2; ++twice) {
    EXPECT_NE(Set(kCleared).find(R"("local":null)"), std::string::npos);
  }
  EXPECT_EQ(CountLogged("INFO power: the local override is cleared; following the portal"), 1);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{60, 60, 60, 60, 2, 0}));
}

TEST_F(PowerTasksTest, WithoutAPolicyOfThePortalAClearedOverrideGivesTheOwnersSettingsBack) {
  Set(kNightly);
  EXPECT_EQ(sim::SchemeIndexes({}), (Indexes{300, 300, 360, 360, 1, 1}));
  EXPECT_NE(Set(kCleared).find(R"("local":null)"), std::string::npos);
  EXPECT_EQ(sim::SchemeIndexes({}), kOwn);
  EXPECT_TRUE(sim::TaskLines().empty());
  EXPECT_EQ(State(state::kPriorPower) + State(state::kPowerScheduleApplied), "");
}

TEST_F(PowerTasksTest, RefusedOverridesChangeNothing) {
  Receive(Policy(20, 30));  // its line makes the log's folders
  const std::pair<const char*, const char*> refused[] = {
      {"WARN power.set refused: minutes must be whole numbers from 0 to 240",
       R"({"screenOffMinutes":241,"sleepMinutes":0}|{"screenOffMinutes":-1,"sleepMinutes":0}|)"
       R"({"screenOffMinutes":1,"sleepMinutes":7.5}|{"screenOffMinutes":1}|{})"},
      {"WARN power.set refused: invalid schedule",
       R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":{"enabled":true}}|)"
       R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":false})"},
      {nullptr, R"({"screenOffMinutes":1,"sleepMinutes":2,"local":false}|{"useOrganisation":"yes"}|)"
                R"({"screenOffMinutes":1,"sleepMinutes":2,"local":1}|{"useOrganisation":1})"}};
  for (const auto& [line, requests] : refused) {
    for (const std::string& request : test::Words(requests)) {
      NewTexts();
      const sim::FaultPass pass;
      EXPECT_EQ(Set(request), R"({"ok":false,"error":"invalid"})") << request;
      EXPECT_EQ(pass.Count(), 0) << request;
      EXPECT_EQ(NewTexts(), line != nullptr ? std::vector<std::string>{line} : std::vector<std::string>()) << request;
    }
  }
  state::DeleteStateValue(state::kDeviceToken);
  const sim::FaultPass pass;
  for (const char* request : {kCleared, kNightly, "{}"}) {
    EXPECT_EQ(Set(request), R"({"ok":false,"error":"not_enrolled"})");
  }
  EXPECT_EQ(pass.Count(), 0);
}

TEST_F(PowerTasksTest, SleepAndWakeRuns) {
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(CountLogged("INFO power: scheduled sleep"), 1);
  EXPECT_EQ(CountLogged("INFO Kiosk shutting down"), 1);
  const win32::KernelHandle live(CreateEventW(nullptr, TRUE, FALSE, L"Global\\NorvaneStreamSessionActive"));
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(sim::power.suspends.Get(), 2U);
  SetEvent(live.Get());
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(sim::power.suspends.Get(), 2U);
  EXPECT_EQ(CountLogged("WARN power: scheduled sleep skipped, a stream session is live"), 1);
  ResetEvent(live.Get());
  sim::power.suspendError.Set(ERROR_NOT_SUPPORTED);
  EXPECT_EQ(SleepNow(), 1);
  EXPECT_EQ(CountLogged("ERROR power: SetSuspendState failed (50)"), 1);
  // Windows keeps tasks of services back while the battery saver is on ("Battery Saver"), and runs them when it ends.
  Receive(Policy(15, 0, "true", "23:55"));
  sim::power.suspendError.Set(0);
  const struct {
    int hour, minute, second;
    std::string minutesLate;
  } runs[] = {{23, 55, 0, ""}, {0, 5, 0, ""}, {0, 5, 1, "10"}, {8, 0, 0, "485"}, {23, 54, 59, ""}, {23, 40, 0, "1425"}};
  for (const auto& each : runs) {
    const sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 24, each.hour, each.minute, each.second));
    const DWORD before = sim::power.suspends.Get();
    EXPECT_EQ(SleepNow(), 0);
    EXPECT_EQ(sim::power.suspends.Get(), before + (each.minutesLate.empty() ? 1 : 0)) << each.hour;
    EXPECT_EQ(CountLogged("WARN power: scheduled sleep skipped, it comes " + each.minutesLate + " min late"),
              each.minutesLate.empty() ? 0 : 1);
  }
  const std::size_t lines = test::LogTexts().size();
  EXPECT_EQ(WakeNow(), 0);
  EXPECT_EQ(sim::power.executionState.Get(), DWORD{ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED});
  EXPECT_EQ(test::LogTexts().size(), lines);
}

TEST_F(PowerTasksTest, TasksThatWindowsKeptWhenKioskModeEndedTakeThemselvesAway) {
  for (int (*const task)() : {SleepNow, WakeNow}) {
    test::Enrol("tok", false);
    Receive(Policy(15, 0, "true"));
    Apply();
    state::DeleteStateValue(state::kDeviceToken);
    sim::FailTaskMethod(L"Connect");
    RestorePowerSettings();
    sim::FailTaskMethod(L"");
    EXPECT_FALSE(sim::RegisteredTask(kSleepName).empty() || sim::RegisteredTask(kWakeName).empty());
    EXPECT_EQ(task(), 0);
    EXPECT_TRUE(sim::TaskLines().empty());
  }
  EXPECT_EQ(sim::power.suspends.Get() + sim::power.executionState.Get(), 0U);
  // Who knows whether this is a terminal?
  const sim::FailingReads unreadable(L"DeviceToken", ERROR_NO_SYSTEM_RESOURCES);
  EXPECT_EQ(SleepNow(), 0);
  EXPECT_EQ(sim::power.suspends.Get(), 1U);
}

// The week of a terminal whose schedule is Monday to Friday, 07:00 to 22:00 local time. Sleep is a jump of the wall
// clock: waits stand still meanwhile.
TEST_F(PowerTasksTest, AComputerThatATimerWokeStaysAwakeForAsLongAsTheScheduleWants) {
  const auto local = [](int day, int hour, int minute) { return sim::FileTimeOf(2026, 11, day, hour - 1, minute); };
  sim::VirtualClock clock(local(23, 21, 59), -60);  // a Monday
  ASSERT_TRUE(win32::CreateStopEvent() && win32::EnablePrivilege(SE_SHUTDOWN_NAME));
  Receive(Policy(15, 0, "true"));
  const win32::KernelHandle thread = win32::StartThread([]() noexcept { AwakeThread(); });
  // Puts the computer to sleep, has a timer wake it then, and tells whether it is asleep again two minutes later.
  const auto sleepsAgain = [&](int day, int hour, int minute) {
    EXPECT_TRUE(SetSuspendState(FALSE, FALSE, FALSE));
    clock.SetSystemTime(local(day, hour, minute));
    clock.RunFor(120'000);
    return sim::SleepAgainUnattended();
  };
  clock.RunFor(0);
  EXPECT_TRUE(sim::SystemIsRequired()) << "at once";
  EXPECT_FALSE(sleepsAgain(24, 7, 0));
  EXPECT_FALSE(sleepsAgain(24, 12, 30)) << "somebody had put it to sleep during the day";
  clock.SetSystemTime(local(24, 22, 0));
  clock.RunFor(60'000);
  EXPECT_FALSE(sim::SystemIsRequired());
  EXPECT_TRUE(sleepsAgain(25, 3, 0)) << "Windows' own maintenance";
  EXPECT_TRUE(sleepsAgain(28, 7, 0)) << "on Saturday";
  Receive(Policy(15, 30, "true"));
  EXPECT_FALSE(sleepsAgain(30, 7, 0));
  EXPECT_TRUE(sleepsAgain(30, 7, 29)) << "for as long as an idle computer stays awake";
  Receive(Policy(15, 0, "true"));
  sim::power.requestError.Set(ERROR_NOT_ENOUGH_MEMORY);
  NewTexts();
  EXPECT_TRUE(sleepsAgain(30, 12, 0));
  sim::power.requestError.Set(0);
  EXPECT_FALSE(sleepsAgain(30, 13, 0));
  EXPECT_EQ(NewTexts(), (std::vector<std::string>{"ERROR power: cannot keep the computer awake (8)",
                                                  "INFO power: the schedule keeps the computer awake"}));
  state::DeleteStateValue(state::kDeviceToken);
  clock.RunFor(60'000);
  EXPECT_FALSE(sim::SystemIsRequired());
  EXPECT_EQ(NewTexts(), (std::vector<std::string>{"INFO power: the schedule no longer keeps the computer awake"}));
  test::Enrol("tok", false);
  clock.RunFor(60'000);
  EXPECT_TRUE(sim::SystemIsRequired());
  win32::RequestStop();
  EXPECT_EQ(WaitForSingleObject(thread.Get(), 1'000), WAIT_OBJECT_0);
  EXPECT_FALSE(sim::SystemIsRequired());
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
  SetString(state::kStateKey, L"PowerLocal", win32::ToWide(" " + Policy(7, 8)));
  SetString(state::kStateKey, L"PowerError", L"wake_unavailable");
  EXPECT_EQ(body(), version.substr(0, version.size() - 1) + ",\"powerLocal\":" + Policy(7, 8) +
                        R"(,"powerError":"wake_unavailable"})");
  SetString(state::kStateKey, L"PowerLocal", L"[]");
  EXPECT_EQ(body(), version.substr(0, version.size() - 1) + R"(,"powerError":"wake_unavailable"})");
}

}  // namespace
}  // namespace kiosk::power
