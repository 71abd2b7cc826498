// A change of an adapter stays only when the portal answers over it; and all of it holds whatever fails, and whenever
// the power goes.
#include "network/trial.h"

#include "service/worker.h"
#include "sim/fault_driver.h"
#include "tests/support/network_adapter.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/worker_wake.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kiosk::network {
namespace {

// With the worker, which checks in at a portal that answers nothing, and never anything that it acts on.
class NetworkTrialTest : public NetworkTest {
 protected:
  void SetUp() override {
    NetworkTest::SetUp();
    test::Enrol("tok", false);
    answer_ = silence_;
    ASSERT_TRUE(win32::CreateStopEvent());
    ASSERT_TRUE(win32::CreateWorkerWake());
    before_ = sim::DumpAdapters();
  }
  void TearDown() override {
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(worker_.Get(), 10'000), WAIT_OBJECT_0);
    NetworkTest::TearDown();
  }
  void StartWorker() {
    worker_ = win32::StartThread([]() noexcept { service::RunWorker(); });
    clock_.RunFor(1'000);
  }
  // The wrong network: nothing that is set leads to the portal.
  void SetWrong() { EXPECT_TRUE(Set(kStatic).starts_with(R"({"ok":true)")); }
  bool IsBack() const { return sim::DumpAdapters() == before_ && !Recorded(); }

  const sim::Response silence_{.sendError = ERROR_WINHTTP_CANNOT_CONNECT};
  std::string before_;
  win32::KernelHandle worker_;
};

TEST_F(NetworkTrialTest, WithoutAnAnswerTheSettingsBeforeComeBackAfterFiveMinutes) {
  StartWorker();
  clock_.RunFor(200'000);  // so long that the worker backs off
  for (const sim::Response& noProof : {silence_, sim::Response{.status = 407}}) {
    answer_ = noProof;
    const std::size_t asked = portal_.Requests().size();
    SetWrong();
    clock_.RunFor(295'000);
    EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
    EXPECT_EQ(portal_.Requests().size() - asked, 10U);
    clock_.RunFor(10'000);
    EXPECT_TRUE(IsBack());
    clock_.RunFor(20'000);
  }
  EXPECT_EQ(test::CountLogged("WARN net.set: no answer from the portal in 5 minutes since " + kName +
                              " was set to static 10.1.2.3/24, gateway 10.1.2.1, DNS 9.9.9.9, DNS 8.8.8.8; going back"),
            2);
}

TEST_F(NetworkTrialTest, AnAnswerToARequestThatBeganAfterTheChangeProvesIt) {
  answer_ = {.status = 503, .headersDelay = 8'000};
  StartWorker();  // its request began before the change
  SetWrong();
  clock_.RunFor(9'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(9'000);
  EXPECT_FALSE(Recorded());
  answer_ = silence_;
  clock_.RunFor(600'000);
  EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
  // It is noted before the answer ends kiosk mode.
  answer_ = test::kRevoked;
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  clock_.RunFor(1'000);
  const std::vector<std::string> log = test::LogTexts();
  const auto proven =
      std::find(log.begin(), log.end(), "INFO net.set: the portal answers; " + kName + " stays as it is: DHCP");
  EXPECT_NE(std::find_if(proven, log.end(),
                         [](const std::string& line) { return line.starts_with("WARN removing kiosk mode"); }),
            log.end());
}

TEST_F(NetworkTrialTest, OnlyTimeWithALinkAndAwakeCounts) {
  StartWorker();
  SetWrong();
  clock_.RunFor(100'000);
  for (const sim::Field<>* lost : {&kAdapter.hardware, &kAdapter.cable}) {  // the adapter unplugged, and its cable
    lost->Set(0);
    clock_.RunFor(1'000'000);
    lost->Set(1);
    clock_.RunFor(40'000);
  }
  for (DWORD slept = 30; slept <= 600; slept += 30) {
    sim::sleptSeconds.Set(slept);
    clock_.RunFor(30'000);
  }
  EXPECT_TRUE(Recorded());
  clock_.RunFor(240'000);
  EXPECT_TRUE(IsBack());
}

TEST_F(NetworkTrialTest, OfARowOfChangesTheSettingsBeforeTheFirstComeBack) {
  StartWorker();
  SetWrong();
  clock_.RunFor(250'000);
  EXPECT_TRUE(Set(R"("mode":"static","address":"10.5.5.5","prefixLength":8,"dns":[])").starts_with(R"({"ok":true)"));
  clock_.RunFor(250'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(55'000);
  EXPECT_TRUE(IsBack());
  // And when somebody else has set it meanwhile, it is left alone.
  SetWrong();
  kAdapter.addresses.Set(L"10.7.7.7/24");
  clock_.RunFor(310'000);
  EXPECT_FALSE(Recorded());
  EXPECT_NE(sim::DumpAdapters(), before_);
}

TEST_F(NetworkTrialTest, NothingIsProvenForAnotherNetworkOrAtTheEnd) {
  StartWorker();
  EXPECT_TRUE(Set(kStatic + R"(,"keep":true)").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_TRUE(Recorded());
  EXPECT_TRUE(Set(R"("mode":"dhcp","keep":true)").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
  SetWrong();
  EXPECT_TRUE(EndChanges());  // of kiosk mode
  EXPECT_FALSE(Recorded());
  clock_.RunFor(600'000);
  EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
}

TEST_F(NetworkTrialTest, ATokenThatCannotBeReadEndsNoTrial) {
  StartWorker();
  {
    const sim::FailingReads failing(L"DeviceToken", ERROR_NO_SYSTEM_RESOURCES);
    SetWrong();
    clock_.RunFor(100'000);
  }
  EXPECT_TRUE(Recorded());
  clock_.RunFor(205'000);
  EXPECT_TRUE(IsBack());
}

TEST_F(NetworkTrialTest, AStartBeginsTheFiveMinutesAnew) {
  kAdapter.dhcp.Set(0);
  kAdapter.addresses.Set(L"10.1.2.3/24");
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.1.2.1");
  Record(std::string(kDhcpRecord) + kWantedRecord + R"(,"unproven":true)");
  StartWorker();
  clock_.RunFor(290'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(20'000);
  EXPECT_TRUE(IsBack());
}

// Whatever fails, wherever the process ends: after the next start the adapter is as it was, or wholly as asked; and it
// is what the answer said, if there was one.
void EveryPoint(const wchar_t* name, void (*owners)(), const std::string& request, const std::string& asked) {
  const sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 9));
  const auto prepare = [owners] {
    MakeMachine();
    Set(R"("mode":"?")");  // the log tree exists
    owners();
    const std::string before = sim::DumpAdapters();
    sim::WriteText(L"Expected", L"Before", std::wstring(before.begin(), before.end()));
    sim::ForgetValue(L"Expected", L"Answer");
  };
  const auto run = [&] { sim::WriteText(L"Expected", L"Answer", Set(request) == kFailed ? L"failed" : L"ok"); };
  const auto later = [&] {
    NoteAnswer(ChangesMade(), 200);
    EXPECT_TRUE(SettleChanges());
    EXPECT_FALSE(Recorded());
    const std::string now = sim::DumpAdapters();
    const bool asIt = now == sim::Narrow(sim::ReadText(L"Expected", L"Before").value_or(L""));
    const std::wstring answer = sim::ReadText(L"Expected", L"Answer").value_or(L"");
    EXPECT_TRUE(answer == L"ok" ? now == asked : answer == L"failed" ? asIt : asIt || now == asked) << now;
  };
  sim::RunFaultScenario({.name = name, .prepare = prepare, .run = run, .later = later});
}

TEST(NetworkFaults, FromDhcp) {
  EveryPoint(
      L"dhcp to static", [] { test::Enrol("tok", false); }, kStatic,
      kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
}
TEST(NetworkFaults, FromStatic) {
  EveryPoint(L"static to dhcp", MakeItStatic, R"("mode":"dhcp")", kName + " dhcp [] [] []\n");
}

// The way back after five minutes is gone to its end, however often it is begun; and it is the same one after a second
// change, if there is one, wherever that ended.
void EveryPointOfTheWayBack(const wchar_t* name, const std::string& second) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 9));
  const auto fiveMinutes = [&clock] {
    SettleChanges();
    clock.RunFor(300'000);
    return SettleChanges();
  };
  const auto prepare = [] {
    MakeMachine();
    MakeItStatic();
    test::Enrol("tok", false);
    const std::string before = sim::DumpAdapters();
    sim::WriteText(L"Expected", L"Before", std::wstring(before.begin(), before.end()));
    EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  };
  const auto later = [&] {
    EXPECT_TRUE(fiveMinutes());
    EXPECT_FALSE(Recorded());
    EXPECT_EQ(sim::DumpAdapters(), sim::Narrow(sim::ReadText(L"Expected", L"Before").value_or(L"")));
  };
  const auto run = [&] { second.empty() ? static_cast<void>(fiveMinutes()) : static_cast<void>(Set(second)); };
  sim::RunFaultScenario({.name = name, .prepare = prepare, .run = run, .later = later});
}

TEST(NetworkFaults, WithoutAnAnswer) { EveryPointOfTheWayBack(L"no answer", ""); }
TEST(NetworkFaults, ASecondChange) { EveryPointOfTheWayBack(L"second change", kStatic); }

}  // namespace
}  // namespace kiosk::network
