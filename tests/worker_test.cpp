// The worker's loop, in virtual time.
#include "service/worker.h"

#include "enrolment/device_token.h"
#include "log/event_log.h"
#include "log/log.h"
#include "proxy/proxy.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "sim/power.h"
#include "sim/profiles.h"
#include "sim/shutdown.h"
#include "state/folders.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"
#include "version.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/worker_wake.h"

#include <optional>
#include <utility>

namespace kiosk::service {
namespace {

using test::kRevoked;
using test::kUpdateKey;
using test::SetString;

// Enrolled, and the worker with its events; an outage is an `answer_` like any other.
class WorkerTest : public test::EnrolledTerminal {
 protected:
  void SetUp() override {
    EnrolledTerminal::SetUp();
    ASSERT_TRUE(win32::CreateStopEvent());
    ASSERT_TRUE(win32::CreateWorkerWake());
  }
  void TearDown() override {
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(thread_.Get(), 10'000), WAIT_OBJECT_0);
  }
  void StartWorker() {
    thread_ = win32::StartThread([]() noexcept { RunWorker(); });
  }

  using Times = std::vector<std::uint64_t>;
  using Texts = std::vector<std::string>;
  const sim::Response good_ = answer_;
  const sim::Response outage_{.status = 503};
  win32::KernelHandle thread_;
};

TEST_F(WorkerTest, OutageBacksOffAndIsLoggedOnce) {
  answer_ = outage_;
  StartWorker();
  clock_.RunUntil(3'600'000);
  EXPECT_EQ(portal_.Seconds(), (Times{0, 30, 90, 210, 450, 930, 1530, 2130, 2730, 3330}));
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"HTTP 503");
  answer_ = good_;
  clock_.RunUntil(4'000'000);
  EXPECT_EQ(portal_.Seconds(), (Times{0, 30, 90, 210, 450, 930, 1530, 2130, 2730, 3330, 3930, 3960, 3990}));
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"");
  EXPECT_EQ(test::CountLogged("WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled"), 1);
  EXPECT_EQ(test::CountLogged("INFO check-in: AuthSystem reachable again"), 1);
  // The next outage begins at the bottom again.
  answer_ = outage_;
  clock_.RunUntil(4'120'000);
  EXPECT_EQ(portal_.Seconds().back(), 4110U);
  EXPECT_EQ(test::CountLogged("WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled"), 2);
}

constexpr char kAway[] = "NorvaneKiosk warning 210 [HTTP 503]";
constexpr char kBack[] = "NorvaneKiosk information 211";
constexpr char kSetUp[] = "NorvaneKiosk information 201";

// An hour in which the computer was awake.
TEST_F(WorkerTest, AnHourWithoutThePortalIsInTheEventLogOnceAndSoIsItsReturn) {
  answer_ = outage_;
  StartWorker();
  clock_.At(1'000'000, [] { sim::sleptSeconds.Set(500); });
  clock_.RunUntil(4'100'000);
  EXPECT_EQ(sim::EventLogEntries(), Texts{});
  clock_.RunUntil(9'000'000);
  EXPECT_EQ(sim::EventLogEntries(), Texts{kAway});
  answer_ = good_;
  clock_.RunUntil(10'000'000);
  EXPECT_EQ(sim::EventLogEntries(), (Texts{kAway, kBack, kSetUp}));
}

TEST_F(WorkerTest, ARestartDuringAnOutageTellsTheEventLogNothingAgain) {
  test::SetDword(state::kStateKey, L"ToldTroubles", log::kPortalAway);
  answer_ = outage_;
  StartWorker();
  clock_.RunUntil(7'200'000);
  EXPECT_EQ(sim::EventLogEntries(), Texts{});
  answer_ = good_;
  clock_.RunUntil(8'000'000);
  EXPECT_EQ(sim::EventLogEntries(), (Texts{kBack, kSetUp}));
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"ToldTroubles"));
}

TEST_F(WorkerTest, WhatIsWrongWithTheComputerIsInTheEventLogOnce) {
  constexpr int kMade[] = {NORVANE_VERSION_NUMBERS};
  clock_.SetSystemTime(sim::FileTimeOf(kMade[0], kMade[1], kMade[2]) -
                       std::uint64_t{24} * 3600 * win32::kFileTimeSecond - 1);
  CreateDirectoryW(L"C:\\ProgramData\\Norvane", nullptr);
  CreateDirectoryW(state::kProductFolder, nullptr);
  win32::FileHandle inTheWay(CreateFileW(state::kLogRoot, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  ASSERT_TRUE(inTheWay);
  log::StartBanner(log::kKiosk);
  StartWorker();
  clock_.RunUntil(100'000);
  const std::string folder = "NorvaneKiosk error 111 [" + sim::Narrow(state::kLogRoot) + "] [32]";
  EXPECT_EQ(sim::EventLogEntries(), (Texts{"NorvaneKiosk warning 110", folder, kSetUp}));
  clock_.SetSystemTime(test::kMorning);
  inTheWay.Reset();
  clock_.RunUntil(3'600'000);
  log::Log(log::kNotice, log::kKiosk, "the first line after an hour");
  clock_.RunUntil(3'700'000);
  EXPECT_EQ(sim::EventLogEntries().size(), 3U);
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"ToldTroubles"));
}

TEST_F(WorkerTest, WakeDuringABackOffIsActedOnAtOnce) {
  answer_ = outage_;
  StartWorker();
  clock_.At(1'000'000, [this] {
    answer_ = good_;
    win32::WakeWorker();
  });
  clock_.RunUntil(1'040'000);
  EXPECT_EQ(portal_.Seconds(), (Times{0, 30, 90, 210, 450, 930, 1000, 1030}));
}

TEST_F(WorkerTest, OtherErrorsOnRecordSurviveAnOutageAndThoseOfACheckInARestart) {
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kUpdateKey, L"ClientInstallDir");
  answer_ = outage_;
  state::RecordLastError("no_client");
  StartWorker();
  clock_.RunUntil(60'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"no_client");
  answer_ = good_;
  clock_.RunUntil(120'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"no_client");
  state::RecordLastError("WinHTTP error 12029");
  clock_.RunUntil(155'000);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"");
}

TEST_F(WorkerTest, ProvisionsAtTheFirstGoodAnswerAndAfterAFailureEveryTenMinutes) {
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kUpdateKey, L"ClientInstallDir");
  StartWorker();
  constexpr char kFailed[] = "ERROR provisioning failed: no_client (0)";
  const std::pair<std::uint64_t, int> moments[] = {{599'000, 1}, {629'000, 2}, {1'199'000, 2}, {1'229'000, 3}};
  for (const auto& [until, failures] : moments) {
    clock_.RunUntil(until);
    EXPECT_EQ(test::CountLogged(kFailed), failures) << until;
  }
  EXPECT_EQ(portal_.Seconds().size(), 41U) << "check-ins go on meanwhile";
  SetString(kUpdateKey, L"ClientInstallDir", L"C:\\Client");
  clock_.RunUntil(1'799'000);
  EXPECT_FALSE(state::FlagIsOn(state::kProvisioned));
  clock_.RunUntil(1'801'000);
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"");
  const std::wstring password = sim::AccountPassword(L"NorvaneKiosk");
  SetString(account::kWinlogonKey, account::kDefaultUserName, L"anna");  // as Windows does when she signs in
  sim::AddToGroup(test::kAdministrators, test::Kiosk().sid);
  clock_.RunUntil(1'831'000);
  EXPECT_EQ(sim::AccountPassword(L"NorvaneKiosk"), password) << "provisioned twice";
  EXPECT_EQ(test::CountLogged("WARN removed NorvaneKiosk from Administrators"), 1);
  EXPECT_EQ(state::ReadString(account::kWinlogonKey, account::kDefaultUserName), L"NorvaneKiosk");
}

TEST_F(WorkerTest, RevocationEndsTheEnrolmentAndWhatIsPendingIsRetried) {
  StartWorker();
  clock_.RunUntil(1'000);
  ASSERT_TRUE(state::FlagIsOn(state::kProvisioned));
  sim::profilesBusy.Set(25);
  answer_ = kRevoked;
  clock_.RunUntil(45'000);
  EXPECT_FALSE(state::TokenIsStored());
  EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending));
  clock_.RunUntil(3'600'000);
  EXPECT_EQ(portal_.Seconds(), (Times{0, 30})) << "nothing is asked without a token";
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"TeardownPending"));
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"LastError"));
  // The wait is without limit again, until a pairing.
  answer_ = good_;
  clock_.At(7'200'000, [] {
    enrolment::StoreDeviceToken("tok");
    win32::WakeWorker();
  });
  clock_.RunUntil(7'201'000);
  EXPECT_EQ(portal_.Seconds().back(), 7200U);
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
}

TEST_F(WorkerTest, AnOutageEndsWithTheEnrolment) {
  answer_ = outage_;
  StartWorker();
  clock_.RunUntil(1'000);
  answer_ = kRevoked;
  clock_.RunUntil(3'700'000);
  EXPECT_FALSE(state::TokenIsStored());
  answer_ = outage_;
  enrolment::StoreDeviceToken("tok");
  win32::WakeWorker();
  clock_.RunUntil(3'800'000);
  EXPECT_EQ(test::CountLogged("WARN check-in: no usable answer from AuthSystem (HTTP 503); still enrolled"), 2);
  EXPECT_EQ(state::ReadStateString(state::kLastError), L"HTTP 503");
  EXPECT_EQ(sim::EventLogEntries(), Texts{"NorvaneKiosk warning 203 [removed in the portal (401, status revoked)]"});
}

TEST_F(WorkerTest, AProxyThatCouldNotBeGivenBackIsTriedAgainWithoutAnEnrolment) {
  StartWorker();
  clock_.RunUntil(1'000);
  test::Ask(proxy::ProxySet, R"({"mode":"manual","server":"proxy.test:1"})");
  answer_ = kRevoked;
  {
    const sim::FailingReads failing(L"WinHttpSettings", ERROR_NO_SYSTEM_RESOURCES);
    clock_.RunUntil(45'000);
    EXPECT_FALSE(state::TokenIsStored());
    EXPECT_TRUE(test::HasValue(state::kStateKey, L"PriorWinHttpSettings"));
  }
  clock_.RunUntil(700'000);
  EXPECT_EQ(test::CountLogged("INFO proxy: the computer's own default proxy is back"), 1);
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"PriorWinHttpSettings"));
}

TEST_F(WorkerTest, AProfileThatCannotBeDeletedHoldsNothingUpAndGoesWithinTheHour) {
  StartWorker();
  clock_.RunUntil(1'000);
  const std::wstring old = test::Kiosk().sid;
  ASSERT_EQ(sim::LoadHive(L"Scanner", sim::ProfileFolder(old) + L"\\NTUSER.DAT"), DWORD{ERROR_SUCCESS});
  sim::RemoveUser(L"NorvaneKiosk");
  clock_.RunUntil(45'000);
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
  EXPECT_NE(test::Kiosk().sid, L"");
  answer_ = kRevoked;
  clock_.RunUntil(3'000'000);
  EXPECT_FALSE(state::TokenIsStored() || state::FlagIsOn(state::kTeardownPending));
  sim::UnloadHive(L"Scanner");
  clock_.RunUntil(7'300'000);
  EXPECT_TRUE(sim::ProfileFolder(old).empty()) << "the worker slept on without a token";
}

TEST_F(WorkerTest, TheSessionOfADeletedKioskAccountIsSignedOutAndTheNewOneComesWithARestart) {
  StartWorker();
  clock_.RunUntil(1'000);
  const std::wstring old = test::Kiosk().sid;
  ASSERT_NE(sim::SignIn(L"NorvaneKiosk", test::kKioskSession), 0U);
  sim::RemoveUser(L"NorvaneKiosk");
  clock_.RunUntil(60'000);
  EXPECT_EQ(sim::SessionOf(old), 0U);
  EXPECT_TRUE(sim::ProfileFolder(old).empty());
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
  clock_.RunUntil(400'000);
  EXPECT_TRUE(sim::PendingShutdown());
}

TEST_F(WorkerTest, BrandingAndPowerComeWithACheckInAndBrandingGoesWithTheEnrolment) {
  constexpr wchar_t kFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Kiosk";
  answer_.body =
      R"({"status":"enrolled","branding":{"displayName":"N"},"power":{"screenOffMinutes":1,"sleepMinutes":2,)"
      R"("schedule":{"enabled":false,"sleepAt":"22:00","wakeAt":"07:00","days":[]}}})";
  StartWorker();
  clock_.RunUntil(10'000);
  EXPECT_TRUE(test::Exists(std::wstring(kFolder) + L"\\Branding\\branding.json"));
  EXPECT_EQ(sim::SchemeIndexes({}), (sim::Indexes{60, 60, 120, 120, 2, 0}));
  sim::SetSchemeIndexes(sim::kBalanced, {60, 60, 120, 0, 2, 0});
  clock_.RunUntil(40'000);
  EXPECT_EQ(sim::SchemeIndexes({}), (sim::Indexes{60, 60, 120, 120, 2, 0}));
  answer_ = kRevoked;
  clock_.RunUntil(70'000);
  EXPECT_FALSE(test::Exists(kFolder));
}

// Counted on the worker's own thread, from one check-in to the next, with every kind of policy that the portal can
// send.
TEST_F(WorkerTest, ASteadyCheckInWritesNothing) {
  answer_.body = R"({"status":"enrolled","name":"Hall","signIn":{"email":true},"branding":{"displayName":"N"},)"
                 R"("power":{"screenOffMinutes":1,"sleepMinutes":2,"schedule":{"enabled":true,"sleepAt":"22:00",)"
                 R"("wakeAt":"07:00","days":[1]}},"powerSource":"tenant","updatesSource":"tenant",)"
                 R"("updates":{"automatic":true,"window":{"start":"02:00","end":"05:00","days":[6]}}})";
  std::optional<sim::FaultPass> pass;
  std::vector<std::string> changes;  // of each time between two check-ins
  portal_.On(L"POST", test::kCheckInPath, [&](const sim::Request&) {
    if (pass) {
      std::string& all = changes.emplace_back();
      for (const std::string& text : pass->Texts()) {
        all += text + "\n";
      }
    }
    pass.emplace();
    return answer_;
  });
  StartWorker();
  clock_.RunUntil(40'000);
  const std::vector<std::string> said = test::LogTexts();
  clock_.RunUntil(130'000);
  EXPECT_EQ(test::LogTexts(), said);
  ASSERT_EQ(changes.size(), 4U);
  for (const char* once : {"NetUserAdd(", "\\Provisioned)", "\\UpdatesPolicy)", "\\PowerPolicy)", "\\SignIn)",
                           "branding.json", "RegisterTaskDefinition("}) {
    EXPECT_NE(changes[0].find(once), std::string::npos) << once;
  }
  // Attempts that find nothing to change, each without a look before it.
  constexpr char kAttempts[] =
      "RegDeleteKeyValueW(HKLM\\SOFTWARE\\Norvane\\Tessaly\\Kiosk\\UnknownSince)\n"
      "NetLocalGroupDelMembers(Administrators)\nNetLocalGroupDelMembers(Power Users)\n"
      "NetLocalGroupDelMembers(Remote Desktop Users)\nNetLocalGroupDelMembers(Backup Operators)\n"
      "NetLocalGroupDelMembers(Network Configuration Operators)\n";
  for (std::size_t i = 1; i < changes.size(); ++i) {
    EXPECT_EQ(changes[i], kAttempts) << i;
  }
}

TEST_F(WorkerTest, TokenThatCannotBeReadIsLookedAtAgain) {
  const auto blob = state::ReadState(state::kDeviceToken);
  ASSERT_TRUE(blob);
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "junk", 4);
  StartWorker();
  clock_.RunUntil(1'000'000);  // it looks after 30, 90, 210, 450 and 930 s
  EXPECT_EQ(portal_.Seconds(), Times{});
  EXPECT_EQ(test::CountLogged("ERROR cannot unprotect the device token (13)"), 1);
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, blob->bytes.data(), blob->bytes.size());
  clock_.RunUntil(1'600'000);
  EXPECT_EQ(portal_.Seconds(), (Times{1530, 1560, 1590}));
  {
    const sim::FailingReads failing(L"DeviceToken", ERROR_NO_SYSTEM_RESOURCES);
    clock_.RunUntil(1'700'000);
  }
  clock_.RunUntil(1'750'000);
  EXPECT_EQ(portal_.Seconds(), (Times{1530, 1560, 1590, 1710, 1740})) << "the waits begin at the bottom again";
  EXPECT_EQ(test::CountLogged("ERROR cannot read the device token (1450)"), 1);
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
}

// The token could not be read at the one moment when a good answer was to be taken over.
TEST_F(WorkerTest, AnswerThatIsNotTakenOverIsNoOutage) {
  std::optional<sim::FailingReads> failing;
  portal_.On(L"POST", test::kCheckInPath, [&](const sim::Request& request) {
    if (request.at == 930'000) {
      failing.emplace(L"DeviceToken", ERROR_NO_SYSTEM_RESOURCES, 1);
    }
    return sim::Response{.status = request.at < 930'000 ? DWORD{503} : DWORD{200}, .body = good_.body};
  });
  StartWorker();
  clock_.RunUntil(1'000'000);
  EXPECT_EQ(portal_.Seconds(), (Times{0, 30, 90, 210, 450, 930, 960, 990}));
}

TEST_F(WorkerTest, StopEndsAWaitAtOnce) {
  StartWorker();
  clock_.At(10'000, [] { win32::RequestStop(); });
  EXPECT_EQ(WaitForSingleObject(thread_.Get(), 29'000), WAIT_OBJECT_0);
  EXPECT_EQ(clock_.Elapsed(), 10'000U);
  EXPECT_EQ(portal_.Seconds(), Times{0});
}

TEST_F(WorkerTest, StopDuringACheckInIsNoOutage) {
  answer_.headersDelay = 10'000;
  StartWorker();
  clock_.At(5'000, [] { win32::RequestStop(); });
  clock_.RunUntil(20'000);
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{});
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"LastError"));
}

}  // namespace
}  // namespace kiosk::service
