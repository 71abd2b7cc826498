// The window thread over simulated days and nights.
#include "updates/window_thread.h"

#include "sim/computer.h"
#include "sim/shutdown.h"
#include "tests/support/command.h"
#include "tests/support/updates.h"
#include "updates/presence.h"

#include <functional>

namespace kiosk::updates {
namespace {

using test::SetString;

constexpr std::uint64_t kMinute = 60'000;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;

// The clock begins at 09:00 UTC on Saturday 2026-11-21, which is local time unless a test says otherwise.
class UpdateWindowTest : public test::UpdatesTerminal {
 protected:
  void TearDown() override {
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(thread_.Get(), 40'000), WAIT_OBJECT_0);
    EXPECT_EQ(sim::LiveComObjects(), 0);
  }
  void Start() {
    thread_ = win32::StartThread([]() noexcept { UpdateWindowThread(); });
  }
  // To that time of the day `day` days after the first.
  void GoTo(std::uint64_t day, std::uint64_t hour, std::uint64_t minute = 0) {
    clock_.RunUntil(day * kDay + hour * kHour + minute * kMinute - 9 * kHour);
  }
  // Reports every minute of the span, as the kiosk shell does.
  void Report(std::uint64_t minutes, bool signedIn, bool live = false) {
    const std::string request = std::string(R"({"signedIn":)") + (signedIn ? "true" : "false") + R"(,"live":)" +
                                (live ? "true" : "false") + "}";
    for (std::uint64_t i = 0; i < minutes; ++i) {
      clock_.At(clock_.Elapsed() + i * kMinute, [request] { test::Ask(SessionReport, request, test::kKioskSession); });
    }
  }
  // The windows that had a run, in order.
  static std::string Windows() {
    std::string all;
    for (const std::string& text : test::LogTexts()) {
      if (text.starts_with("INFO os updates: the ") && text.ends_with(" window is open")) {
        all += text.substr(26, 5) + " ";
      }
    }
    return all;
  }
  static std::string RunAt() { return InReport("lastRunAt").substr(0, 16); }
  static int Waited(const char* reason = "a Norvane user is signed in") {
    return test::CountLogged(std::string("INFO os updates: waiting, ") + reason +
                             "; trying again every 15 min in this window");
  }
  static bool Restarting() {
    const bool pending = sim::PendingShutdown().has_value();
    sim::ForgetShutdown();
    return pending;
  }

  win32::KernelHandle thread_;
};

TEST_F(UpdateWindowTest, TwoWeeksOfFridayAndSundayNights) {
  clock_.SetBias(-60);  // 10:00 at first
  SetPolicy("22:00", "02:00", "[5,0]");
  Start();
  clock_.RunFor(14 * kDay);
  EXPECT_EQ(Windows(), "11-22 11-27 11-29 12-04 ");
  EXPECT_EQ(WindowDone(), "2026-12-04");
  EXPECT_EQ(RunAt(), "2026-12-04T21:00");
  EXPECT_EQ(InReport("lastResult"), "nothing");
}

TEST_F(UpdateWindowTest, WaitsForWhoeverIsAtTheTerminal) {
  SetPolicy("02:00", "05:00", "[0,1,2,3,4,5,6]");
  Start();
  GoTo(1, 1, 50);
  Report(75, true);  // to 03:05
  GoTo(1, 2, 2);
  EXPECT_EQ(InReport("lastResult") + RunAt(), "deferred2026-11-22T02:00");
  GoTo(1, 2, 59);
  EXPECT_EQ(RunAt(), "2026-11-22T02:45");
  GoTo(1, 3, 14);
  EXPECT_EQ(InReport("lastResult") + RunAt() + Windows(), "deferred2026-11-22T03:00");
  GoTo(1, 3, 16);
  EXPECT_EQ(InReport("lastResult") + RunAt() + Windows(), "nothing2026-11-22T03:1511-22 ");
  EXPECT_EQ(Waited(), 1);

  GoTo(2, 1, 59);
  Report(240, false, true);  // through the whole window
  GoTo(2, 6);
  EXPECT_EQ(InReport("lastResult") + RunAt() + WindowDone(), "deferred2026-11-23T04:452026-11-22");
  EXPECT_EQ(Waited("a stream session is live"), 1);

  // A report counts for 150 s, and for as long as its session is the kiosk's.
  GoTo(3, 1, 58);
  Report(1, true);
  GoTo(3, 2, 2);
  EXPECT_EQ(InReport("lastResult"), "deferred");
  GoTo(4, 1, 57);
  Report(1, true);
  GoTo(4, 2, 2);
  EXPECT_EQ(InReport("lastResult"), "nothing");
  GoTo(5, 1, 58);
  Report(1, true);
  sim::SetSession(test::kKioskSession, L"Anna", L"ELSEWHERE");
  GoTo(5, 2, 2);
  EXPECT_EQ(RunAt(), "2026-11-26T02:00");
  const win32::KernelHandle stream(CreateEventW(nullptr, TRUE, TRUE, L"Global\\NorvaneStreamSessionActive"));
  GoTo(6, 2, 2);
  EXPECT_EQ(InReport("lastResult"), "deferred");
  ResetEvent(stream.Get());
  GoTo(6, 2, 30);
  EXPECT_EQ(InReport("lastResult"), "nothing");
}

TEST_F(UpdateWindowTest, TheRestartWaitsToo) {
  SetPolicy("02:00", "05:00", "[0,1,2,3,4,5,6]");
  sim::OfferUpdate({.title = L"One", .reboot = 1});
  sim::agent.duration[sim::kInstall].Set(static_cast<DWORD>(30 * kMinute));
  Start();
  GoTo(1, 2, 15);
  Report(30, true);  // to 02:45; the run ends at 02:30
  GoTo(1, 2, 59);
  EXPECT_EQ(InReport("lastResult") + InReport("restartRequired"), "oktrue");
  EXPECT_FALSE(sim::PendingShutdown());
  GoTo(1, 3, 3);
  const auto asked = sim::PendingShutdown();
  ASSERT_TRUE(asked);
  EXPECT_TRUE(asked->message == L"Restarting to finish installing updates." && asked->timeout == 60 &&
              asked->forceAppsClosed && asked->restart && asked->reason == 0x80020011);
  EXPECT_EQ(test::CountLogged("INFO os updates: restarting in 60 s to finish installing"), 1);
  EXPECT_TRUE(sim::AgentWork().ends_with("installed 1\ncommitted\n")) << sim::AgentWork();

  // Windows refuses (a restart is under way): again in 15 minutes, in this window alone.
  GoTo(2, 2, 2);
  EXPECT_EQ(test::CountLogged("ERROR os updates: cannot restart (1115)"), 1);
  GoTo(2, 2, 17);
  EXPECT_EQ(test::CountLogged("ERROR os updates: cannot restart (1115)"), 2);
  EXPECT_TRUE(Restarting());
  GoTo(2, 2, 32);
  EXPECT_TRUE(Restarting());
  GoTo(2, 5);
  EXPECT_FALSE(Restarting());

  // Owed when the window closes, it waits for the next one.
  GoTo(3, 1, 59);
  Report(5, false);
  clock_.At(clock_.Elapsed() + kMinute + 1000, [this] { Report(240, true); });
  sim::agent.duration[sim::kSearch].Set(static_cast<DWORD>(5 * kMinute));
  GoTo(3, 23);
  EXPECT_EQ(Windows(), "11-22 11-23 11-24 ");
  EXPECT_FALSE(Restarting());
  GoTo(4, 2, 10);
  EXPECT_TRUE(Restarting());
}

// A feature update is lost in a restart without a commit, and a second commit spoils it.
TEST_F(UpdateWindowTest, WhatIsInstalledIsCommittedOnceBeforeTheRestart) {
  SetPolicy("02:00", "05:00", "[0,1,2,3,4,5,6]");
  sim::OfferUpdate({.title = L"Feature", .reboot = 1, .feature = true});
  sim::agent.durationCommit.Set(10 * 60'000);
  Start();
  GoTo(1, 2);
  clock_.RunFor(30'000);
  EXPECT_FALSE(sim::PendingShutdown());
  // Nobody at the terminal begins a run meanwhile.
  EXPECT_FALSE(RunClaim::Take());
  GoTo(1, 2, 3);
  EXPECT_TRUE(Restarting());
  EXPECT_EQ(test::CountLogged("WARN os updates: Windows did not commit them within 60 s"), 1);
  GoTo(1, 2, 30);
  EXPECT_EQ(sim::agent.committed.Get(), 1U);

  // The restart did not come, the service starts anew, another window: Windows is asked to restart, and that is all.
  state::DeleteStateValue(state::kOsUpdatesWindowDone);
  GoTo(2, 2, 30);
  EXPECT_TRUE(Restarting());
  EXPECT_EQ(sim::AgentWork().find("committed"), sim::AgentWork().rfind("committed"));

  // After the restart there is another one; its failure keeps nothing.
  sim::RestartComputer();
  sim::agent.durationCommit.Set(0);
  sim::agent.failCommit.Set(0x80240fff);
  sim::OfferUpdate({.title = L"Next", .reboot = 1});
  GoTo(3, 2, 30);
  EXPECT_TRUE(Restarting());
  EXPECT_EQ(test::CountLogged("WARN os updates: cannot commit them before the restart (0x80240fff)"), 1);
}

TEST_F(UpdateWindowTest, AServiceThatStartsInADoneWindowDoesNothing) {
  SetPolicy("08:00", "12:00", "[6]");
  sim::agent.rebootRequired.Set(1);
  SetString(state::kStateKey, L"OsUpdatesWindowDone", L"2026-11-21");
  Start();
  clock_.RunFor(4 * kHour);
  EXPECT_EQ(Windows() + StoredReport(), "");
  EXPECT_FALSE(Restarting());
}

TEST_F(UpdateWindowTest, ARunThatIsGoingIsLeftAlone) {
  SetPolicy("09:00", "12:00", "[6]");
  const auto take = [] { return std::make_unique<std::optional<RunClaim>>(RunClaim::Take()); };
  auto claim = take();
  Start();
  clock_.RunFor(10 * kMinute);
  claim.reset();
  clock_.RunFor(5 * kMinute);
  EXPECT_EQ(Windows(), "");
  sim::OfferUpdate({.title = L"One", .reboot = 1});
  sim::agent.duration[sim::kInstall].Set(static_cast<DWORD>(5 * kMinute));
  clock_.RunFor(2 * kMinute);
  Report(6, true);  // the run ends with somebody there, so the restart waits for the next quarter of an hour
  clock_.RunFor(13 * kMinute);
  EXPECT_EQ(RunAt(), "2026-11-21T09:21");
  claim = take();  // and then for a run that the terminal began
  clock_.RunFor(10 * kMinute);
  claim.reset();
  clock_.RunFor(10 * kMinute);
  EXPECT_FALSE(Restarting());
  clock_.RunFor(2 * kMinute);
  EXPECT_TRUE(Restarting());
}

TEST_F(UpdateWindowTest, DaylightSavingAndAClockSetBack) {
  SetPolicy("02:00", "03:00", "[0,1,2,3,4,5,6]");
  clock_.SetSystemTime(sim::FileTimeOf(2027, 3, 27, 23));
  clock_.SetBias(-60);  // Warsaw: 00:00 on the 28th, and 02:00 will be 03:00
  Start();
  clock_.At(2 * kHour, [this] { clock_.SetBias(-120); });
  clock_.RunFor(kDay);
  EXPECT_EQ(Windows(), "");  // that night has no such hour
  clock_.RunFor(kDay);
  EXPECT_EQ(Windows(), "03-29 ");
  // Back: 02:30 is 02:30 twice, and the window is an hour longer.
  clock_.SetSystemTime(sim::FileTimeOf(2027, 10, 30, 23, 50));  // 01:50 on the 31st
  clock_.At(clock_.Elapsed() + 70 * kMinute, [this] { clock_.SetBias(-60); });
  clock_.RunFor(6 * kHour);
  EXPECT_EQ(Windows(), "03-29 10-31 ");
  // A day back: that day's window was not done yet, and the one after it comes again.
  clock_.SetSystemTime(sim::FileTimeOf(2027, 10, 29, 23));
  clock_.RunFor(2 * kDay);
  EXPECT_EQ(Windows(), "03-29 10-30 10-31 10-31 ");  // as the log's days are sorted
}

TEST_F(UpdateWindowTest, GivesEverythingBackWithinAMinute) {
  const std::function<void()> turns[] = {[] { SetPolicy("02:00", "05:00", "[1]", false); },
                                         [] { SetString(state::kStateKey, L"UpdatesPolicy", L"{"); },
                                         [] { state::DeleteStateValue(state::kDeviceToken); }};
  Start();
  for (const auto& turn : turns) {
    SetPolicy("02:00", "05:00", "[1]");
    clock_.RunFor(kMinute + 1);
    EXPECT_TRUE(state::ReadDword(test::kWindowsUpdateKey, L"SetActiveHours"));
    turn();
    clock_.RunFor(kMinute + 1);
    EXPECT_FALSE(state::ReadDword(test::kWindowsUpdateKey, L"SetActiveHours"));
  }
}

TEST_F(UpdateWindowTest, ATerminalThatIsNoneAnyMoreGetsNoResultAndNoRestart) {
  SetPolicy("09:00", "12:00", "[6]");
  sim::OfferUpdate({.title = L"One", .reboot = 1});
  sim::agent.duration[sim::kInstall].Set(static_cast<DWORD>(10 * kMinute));
  Start();
  clock_.At(5 * kMinute, [] { state::WriteStateDword(state::kTeardownPending, 1); });
  clock_.RunFor(3 * kHour);
  EXPECT_EQ(Windows(), "11-21 ");
  EXPECT_EQ(StoredReport() + WindowDone(), "");
  EXPECT_FALSE(Restarting());
}

TEST_F(UpdateWindowTest, AStopLeavesTheWindowToTheNextStart) {
  SetPolicy("09:00", "12:00", "[6]");
  sim::OfferUpdate({.title = L"One"});
  sim::agent.duration[sim::kDownload].Set(INFINITE);
  Start();
  clock_.At(5 * kMinute, [] { win32::RequestStop(); });
  clock_.RunFor(5 * kMinute);
  EXPECT_EQ(WaitForSingleObject(thread_.Get(), 11'000), WAIT_OBJECT_0);
  EXPECT_EQ(Windows(), "11-21 ");
  EXPECT_EQ(StoredReport() + WindowDone(), "");
}

}  // namespace
}  // namespace kiosk::updates
