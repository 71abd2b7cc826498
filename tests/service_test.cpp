// The service's own life, with the test in the place of the service manager.
#include "service/service_main.h"

#include "account/teardown.h"
#include "branding/branding_folder.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "service/install.h"
#include "sim/computer.h"
#include "sim/event_log.h"
#include "sim/fault_driver.h"
#include "sim/service_control.h"
#include "tests/support/pipe_exchange.h"
#include "tests/support/terminal.h"
#include "win32/clock.h"
#include "win32/thread.h"

#include <algorithm>
#include <array>

namespace kiosk::service {
namespace {

class ServiceTest : public test::CleanMachine {};

TEST_F(ServiceTest, AnInstallationThatFailsLeavesALogLineUnlessItHadNoRights) {
  for (const DWORD error : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_SERVICE_MARKED_FOR_DELETE}}) {
    EXPECT_TRUE(test::LogTexts().empty());
    const sim::FaultPass fault("CreateServiceW", error);
    EXPECT_EQ(Install(), 1);
  }
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{"ERROR --install: CreateService failed (1072)"});
}

TEST_F(ServiceTest, AnInstallationThatLeavesTheOldConfigurationSaysSo) {
  const win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  const win32::ServiceHandle service(CreateServiceW(manager.Get(), L"NorvaneKiosk", nullptr, SERVICE_ALL_ACCESS,
                                                    SERVICE_WIN32_OWN_PROCESS, SERVICE_DISABLED, SERVICE_ERROR_NORMAL,
                                                    L"C:\\none.exe", nullptr, nullptr, nullptr, nullptr, nullptr));
  ASSERT_TRUE(service);
  {
    const sim::FaultPass fault("ChangeServiceConfigW", ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(Install(), 0);
  }
  EXPECT_NE(DeleteService(service.Get()), 0);
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{"WARN --install: the service keeps its configuration (1072)"});
}

TEST_F(ServiceTest, ReportsItsStatesAndAnswersControls) {
  const sim::ScriptedPortal portal;
  sim::ServiceHost host;
  int exitCode = -1;
  test::SetDword(state::kStateKey, L"DevAllowUnsigned", 1);
  // Left by an enrolment that ended while the service was not there.
  for (const wchar_t* path : {L"C:\\ProgramData\\Norvane", L"C:\\ProgramData\\Norvane\\Tessaly", branding::kKioskFolder,
                              branding::kBrandingFolder}) {
    CreateDirectoryW(path, nullptr);
  }
  {
    const win32::KernelHandle service = win32::StartThread([&exitCode]() noexcept { exitCode = RunDispatcher(); });
    const win32::FileHandle client = test::ConnectToService();  // returns when the pipe is served
    ASSERT_TRUE(client);
    EXPECT_FALSE(test::Exists(branding::kKioskFolder));
    EXPECT_EQ(host.ServiceName(), L"NorvaneKiosk");
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, 1), DWORD{NO_ERROR});
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_PRESHUTDOWN), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    EXPECT_EQ(host.Reports().size(), 2U) << "a control that changes nothing was reported";
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    ASSERT_EQ(WaitForSingleObject(service.Get(), 20'000), WAIT_OBJECT_0);
  }
  EXPECT_EQ(exitCode, 0);
  EXPECT_EQ(sim::EventLogNumbers(), "100 101");
  using Report = std::array<DWORD, 5>;  // type, state, controls, wait hint, check point
  std::vector<Report> reports;
  for (const SERVICE_STATUS& each : host.Reports()) {
    reports.push_back(
        {each.dwServiceType, each.dwCurrentState, each.dwControlsAccepted, each.dwWaitHint, each.dwCheckPoint});
  }
  EXPECT_EQ(reports, (std::vector<Report>{{SERVICE_WIN32_OWN_PROCESS, SERVICE_START_PENDING, 0, 30'000, 0},
                                          {SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, 0x85, 0, 0},
                                          {SERVICE_WIN32_OWN_PROCESS, SERVICE_STOP_PENDING, 0, 45'000, 0},
                                          {SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, 0, 0}}));
  const std::vector<std::string> texts = test::LogTexts();
  EXPECT_EQ(std::vector<std::string>(texts.begin() + 3, texts.end()),
            (std::vector<std::string>{
                "WARN this service is not signed (a dev build): it admits callers only while DevAllowUnsigned=1",
                "INFO enrolled=0 provisioned=0 maintenance=0", "INFO listening on \\\\.\\pipe\\NorvaneKiosk",
                "INFO Kiosk shutting down"}));
}

// What a start puts right before it reports that it runs, and what a shutdown ends before it stops.
TEST_F(ServiceTest, StartRepairsAndShutdownEndsMaintenance) {
  sim::ScriptedPortal portal;
  portal.On(L"POST", test::kCheckInPath, sim::Response{.status = 503});
  sim::ServiceHost host;
  test::Enrol();
  test::SetDword(state::kStateKey, L"DevAllowUnsigned", 1);
  test::SetDword(state::kStateKey, L"Maintenance", 1);
  ASSERT_TRUE(state::WriteStateQword(state::kMaintenanceAt, 1));  // long before this boot
  state::DeleteStateValue(state::kAutoLogonDigest);               // an earlier version knew none
  sim::AddToGroup(test::kAdministrators, test::Kiosk().sid);
  {
    const win32::KernelHandle service = win32::StartThread([]() noexcept { RunDispatcher(); });
    ASSERT_TRUE(test::ConnectToService());
    std::vector<std::string> texts = test::LogTexts();
    const auto trimmed = std::find(texts.begin(), texts.end(), "WARN removed NorvaneKiosk from Administrators");
    ASSERT_TRUE(trimmed != texts.end() && trimmed + 1 != texts.end());
    EXPECT_EQ(*(trimmed - 2), "INFO maintenance over (Windows restarted): kiosk sign-in restored");
    EXPECT_EQ(*(trimmed - 1), "INFO maintenance was cut short: restarting into kiosk mode in 300 s");
    EXPECT_EQ(*(trimmed + 1), "INFO enrolled=1 provisioned=1 maintenance=0");
    ASSERT_TRUE(state::WriteStateQword(state::kMaintenanceAt, win32::FileTimeNow()));
    test::SetDword(state::kStateKey, L"Maintenance", 1);
    sim::AddUser(L"anna");
    sim::SignOut(sim::SignIn(L"anna"));
    EXPECT_TRUE(test::Becomes([] { return !state::FlagIsOn(state::kMaintenance); })) << "a sign-out was not heard of";
    test::SetDword(state::kStateKey, L"Maintenance", 1);
    sim::SignIn(L"anna");
    EXPECT_EQ(host.Deliver(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    ASSERT_EQ(WaitForSingleObject(service.Get(), 20'000), WAIT_OBJECT_0);
  }
  EXPECT_FALSE(state::FlagIsOn(state::kMaintenance));
  EXPECT_EQ(test::CountLogged("INFO maintenance was cut short: somebody signed in, no restart"), 1);
  EXPECT_EQ(test::CountLogged("INFO maintenance over (Windows is restarting): kiosk sign-in restored"), 1);
  EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";
}

// Another process keeps its hands on the account, and the kiosk session does not want to end: "running" does not wait
// for either, and what it did not wait for is done all the same.
TEST_F(ServiceTest, RunningIsReportedInTimeWhateverTheRepairsWaitFor) {
  test::Enrol();
  sim::MakeStubborn(sim::SignIn(L"NorvaneKiosk"), 10'000);
  state::DeleteStateValue(state::kDeviceToken);
  test::SetDword(state::kStateKey, L"TeardownPending", 1);
  const win32::KernelHandle others(CreateMutexW(nullptr, TRUE, L"Global\\NorvaneKioskAccount"));
  sim::VirtualClock clock(test::kMorning);
  clock.SetGrace(20);
  const sim::ScriptedPortal portal;
  sim::ServiceHost host;
  const win32::KernelHandle service = win32::StartThread([]() noexcept { RunDispatcher(); });
  clock.RunUntil(19'999);
  EXPECT_EQ(host.Reports().size(), 1U);
  clock.RunUntil(20'100);
  ASSERT_EQ(host.Reports().size(), 2U);
  EXPECT_EQ(host.Reports().back().dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_EQ(test::CountLogged("WARN start: the repairs are not done yet; they go on"), 1);
  EXPECT_TRUE(sim::FindUser(L"NorvaneKiosk"));
  clock.RunUntil(40'000);
  EXPECT_FALSE(sim::FindUser(L"NorvaneKiosk"));
  EXPECT_EQ(test::CountLogged("INFO the pending removal of NorvaneKiosk finished"), 1);
  EXPECT_EQ(host.Deliver(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
  EXPECT_EQ(WaitForSingleObject(service.Get(), 20'000), WAIT_OBJECT_0);
  ReleaseMutex(others.Get());
}

// Whatever fails while the token is stored, and whenever the process ends: either nothing is stored, or a token that
// reads back whole; and a later pairing succeeds.
TEST(EnrolmentFaults, StoringTheTokenIsAllOrNothing) {
  const auto prepare = [] {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
    test::SetDword(state::kStateKey, L"TeardownPending", 1);
    test::SetString(state::kStateKey, L"UnknownSince", L"x");
  };
  const auto later = [] {
    const bool stored = state::TokenIsStored();
    account::FinishPendingRemoval();
    EXPECT_EQ(enrolment::ReadDeviceToken().Get(), stored ? "tok-1" : "") << "the old removal took it";
    EXPECT_FALSE(stored && test::HasValue(state::kStateKey, L"UnknownSince")) << "of the token before";
    EXPECT_EQ(enrolment::StillEnrolled("tok-1"), stored);
    EXPECT_TRUE(enrolment::StoreDeviceToken("tok-2"));
    EXPECT_EQ(enrolment::ReadDeviceToken().Get(), "tok-2");
    EXPECT_EQ(test::StateNames(), std::set<std::wstring>{L"DeviceToken"});
  };
  sim::RunFaultScenario({.name = L"store the token",
                         .prepare = prepare,
                         .run = [] { enrolment::StoreDeviceToken("tok-1"); },
                         .later = later});
}

}  // namespace
}  // namespace kiosk::service
