// The restart into kiosk mode, in virtual time.
#include "account/kiosk_restart.h"

#include "sim/faults.h"
#include "sim/shutdown.h"
#include "tests/support/terminal.h"
#include "win32/stop.h"

namespace kiosk::account {
namespace {

class RestartTest : public test::VirtualComputer {};

TEST_F(RestartTest, TwoEnrolmentsRestartOnceTenSecondsAfterTheLater) {
  ScheduleKioskRestart();
  clock_.At(4'000, ScheduleKioskRestart);
  clock_.RunUntil(13'999);
  EXPECT_TRUE(KioskRestartPending());
  EXPECT_FALSE(sim::PendingShutdown());
  clock_.RunUntil(14'250);
  EXPECT_FALSE(KioskRestartPending());
  const auto request = sim::PendingShutdown();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->message, L"Restarting to start kiosk mode.");
  EXPECT_TRUE(request->timeout == 0 && request->forceAppsClosed && request->restart);
  EXPECT_EQ(request->reason, 0x80020004U);
  EXPECT_EQ(test::CountLogged("INFO enrolled: restarting into kiosk mode in 10 s"), 2);
  EXPECT_EQ(test::LogTexts().back(), "INFO restarting into kiosk mode (enrolled)");
}

TEST_F(RestartTest, ACancelledOneNeverComesTheNextOneDoesAndAStopEndsTheWait) {
  ScheduleKioskRestart();
  clock_.At(9'000, CancelKioskRestart);
  clock_.RunUntil(60'000);
  RestartIfPending("nobody asked");
  EXPECT_FALSE(sim::PendingShutdown());
  EXPECT_EQ(test::LogTexts().size(), 1U);
  ScheduleKioskRestart();
  ScheduleIdleRestart("", IfSomebodySignsIn::kCallOff);  // comes to nothing beside it, and so does its end
  HoldIdleRestart(true);
  clock_.RunUntil(70'250);
  EXPECT_TRUE(sim::PendingShutdown());
  sim::ForgetShutdown();
  ScheduleIdleRestart("", IfSomebodySignsIn::kPutOff);
  HoldIdleRestart(false);
  EXPECT_TRUE(KioskRestartPending());
  HoldIdleRestart(true);
  EXPECT_FALSE(KioskRestartPending());
  ASSERT_TRUE(win32::CreateStopEvent());
  ScheduleKioskRestart();
  clock_.At(75'000, [] { win32::RequestStop(); });
  clock_.RunUntil(100'000);
  EXPECT_FALSE(sim::PendingShutdown());
}

TEST_F(RestartTest, AWindowsThatIsNotReadyIsAskedThreeTimesFiveSecondsApart) {
  constexpr char kAgain[] = "WARN Windows is not ready to restart; trying again in 5 s";
  sim::shutdownNotReady.Set(2);
  ScheduleKioskRestart();
  clock_.RunUntil(19'900);
  EXPECT_EQ(test::CountLogged(kAgain), 2);
  EXPECT_TRUE(KioskRestartPending());
  EXPECT_FALSE(sim::PendingShutdown());
  clock_.RunUntil(21'000);
  EXPECT_TRUE(sim::PendingShutdown());
  EXPECT_FALSE(KioskRestartPending());
  sim::ForgetShutdown();
  sim::shutdownNotReady.Set(3);
  ScheduleKioskRestart();
  clock_.RunFor(60'000);
  EXPECT_FALSE(sim::PendingShutdown() || KioskRestartPending());
  EXPECT_EQ(test::LogTexts().back(), "ERROR the restart into kiosk mode could not be started (21)");
  sim::shutdownNotReady.Set(1);
  ScheduleKioskRestart();
  clock_.At(clock_.Elapsed() + 12'000, CancelKioskRestart);
  clock_.RunFor(60'000);
  EXPECT_FALSE(sim::PendingShutdown());
}

TEST_F(RestartTest, AnEarlyOneComesOnceAndAFailureIsLogged) {
  ScheduleKioskRestart();
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 1, ERROR_ACCESS_DENIED);
    RestartIfPending("on request");
  }
  EXPECT_FALSE(KioskRestartPending());
  clock_.RunUntil(20'000);
  EXPECT_FALSE(sim::PendingShutdown());
  EXPECT_EQ(test::LogTexts().back(), "ERROR the restart into kiosk mode could not be started (5)");
}

}  // namespace
}  // namespace kiosk::account
