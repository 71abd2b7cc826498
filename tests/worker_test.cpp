// The worker's loop, in virtual time.
#include "service/worker.h"

#include "portal/device_token.h"
#include "portal/worker_wake.h"
#include "sim/clock.h"
#include "sim/http.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/stop.h"


namespace kiosk::service {
namespace {

using test::SetString;

class WorkerTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test");
    ASSERT_TRUE(win32::CreateStopEvent());
    ASSERT_TRUE(portal::CreateWorkerWake());
    portal_.On(L"POST", L"/api/kiosk/check-in", [this](const sim::Request&) {
      sim::Response response;
      response.status = reachable_ ? 200 : 503;
      response.body = R"({"status":"enrolled","name":"Hall"})";
      return response;
    });
  }
  void TearDown() override {
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(thread_, 10'000), WAIT_OBJECT_0);
    CloseHandle(thread_);
  }

  void Enrol() { ASSERT_TRUE(portal::StoreDeviceToken("tok")); }
  void StartWorker() {
    const auto entry = [](void*) -> DWORD {
      RunWorker();
      return 0;
    };
    thread_ = CreateThread(nullptr, 0, entry, nullptr, 0, nullptr);
  }
  // Seconds of virtual time at which check-ins were sent.
  std::vector<std::uint64_t> CheckIns() {
    std::vector<std::uint64_t> times;
    for (const sim::Request& request : portal_.Requests()) {
      times.push_back(request.at / 1000);
    }
    return times;
  }

  using Times = std::vector<std::uint64_t>;
  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
  sim::ScriptedPortal portal_;
  bool reachable_ = true;  // read by the worker, written while it waits
  HANDLE thread_ = nullptr;
};

TEST_F(WorkerTest, OutageBacksOffAndIsLoggedOnce) {
  Enrol();
  reachable_ = false;
  StartWorker();
  clock_.RunUntil(3'600'000);
  EXPECT_EQ(CheckIns(), (Times{0, 30, 90, 210, 450, 930, 1530, 2130, 2730, 3330}));
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"HTTP 503");
  reachable_ = true;
  clock_.RunUntil(4'000'000);
  EXPECT_EQ(CheckIns(), (Times{0, 30, 90, 210, 450, 930, 1530, 2130, 2730, 3330, 3930, 3960, 3990}));
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"");
  EXPECT_EQ(test::LogTexts().front(), "WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled");
  EXPECT_EQ(test::CountLogged("WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled"), 1);
  EXPECT_EQ(test::CountLogged("INFO check-in: AuthSystem reachable again"), 1);
  // The next outage begins at the bottom again.
  reachable_ = false;
  clock_.RunUntil(4'120'000);
  EXPECT_EQ(CheckIns().back(), 4110U);
  EXPECT_EQ(test::CountLogged("WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled"), 2);
}

TEST_F(WorkerTest, WakeDuringABackOffIsActedOnAtOnce) {
  Enrol();
  reachable_ = false;
  StartWorker();
  clock_.At(1'000'000, [this] {
    reachable_ = true;
    portal::WakeWorker();
  });
  clock_.RunUntil(1'040'000);
  EXPECT_EQ(CheckIns(), (Times{0, 30, 90, 210, 450, 930, 1000, 1030}));
}

TEST_F(WorkerTest, SleepsUntilPairingWakesIt) {
  StartWorker();
  clock_.RunUntil(86'400'000);
  EXPECT_EQ(CheckIns(), Times{});
  clock_.At(90'000'000, [this] {
    Enrol();
    portal::WakeWorker();
  });
  clock_.RunUntil(90'070'000);
  EXPECT_EQ(CheckIns(), (Times{90'000, 90'030, 90'060}));
}

TEST_F(WorkerTest, OtherErrorsOnRecordSurviveAnOutage) {
  Enrol();
  reachable_ = false;
  state::RecordLastError("no_client");
  StartWorker();
  clock_.RunUntil(60'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"no_client");
  reachable_ = true;
  clock_.RunUntil(120'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"no_client");
}

TEST_F(WorkerTest, CheckInErrorFromBeforeARestartIsCleared) {
  Enrol();
  state::RecordLastError("WinHTTP error 12029");
  StartWorker();
  clock_.RunUntil(1'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"");
  EXPECT_EQ(test::CountLogged("INFO check-in: AuthSystem reachable again"), 0);
}

TEST_F(WorkerTest, StopEndsAWaitAtOnce) {
  Enrol();
  StartWorker();
  clock_.At(10'000, [] { win32::RequestStop(); });
  EXPECT_EQ(WaitForSingleObject(thread_, 29'000), WAIT_OBJECT_0);
  EXPECT_EQ(clock_.Elapsed(), 10'000U);
  EXPECT_EQ(CheckIns(), Times{0});
}

TEST_F(WorkerTest, StopDuringACheckInIsNoOutage) {
  Enrol();
  portal_.On(L"POST", L"/api/kiosk/check-in", [](const sim::Request&) { return sim::Response{.headersDelay = 10'000}; });
  clock_.SetGrace(200);  // the call is ended from a thread of the real pool
  StartWorker();
  clock_.At(5'000, [] { win32::RequestStop(); });
  clock_.RunUntil(20'000);
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{});
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"LastError"));
}

}  // namespace
}  // namespace kiosk::service
