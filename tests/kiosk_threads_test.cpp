// Everything that changes kiosk mode at once, from eight threads of one process, and from two processes.
#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/maintenance.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "account/unlock.h"
#include "account/winlogon.h"
#include "enrolment/device_token.h"
#include "portal/check_in.h"
#include "portal/pairing.h"
#include "portal/revocation.h"
#include "service/install.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/computer.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/lsa.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/support/command.h"
#include "tests/support/fixture.h"
#include "tests/support/terminal.h"
#include "win32/security.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <wtsapi32.h>

#include <algorithm>
#include <atomic>
#include <random>

namespace kiosk::account {
namespace {

// What must hold whenever nobody is at work; null when it does.
const char* BrokenInvariant() {
  const win32::LockGuard account(AccountLock());
  const win32::LockGuard autoLogon(AutoLogonLock());
  const auto winlogon = [](const wchar_t* name) { return state::ReadString(kWinlogonKey, name).value_or(L""); };
  const auto user = sim::FindUser(L"NorvaneKiosk");
  const bool owns = state::FlagIsOn(state::kOwnsAutoLogon);
  if (state::FlagIsOn(state::kTeardownPending)) {
    return nullptr;
  }
  if (state::FlagIsOn(state::kMaintenance) && !state::TokenIsStored()) {
    return "maintenance without an enrolment";
  }
  if (!owns && winlogon(L"DefaultUserName") != L"anna") {
    return "the owner's sign-in is changed without the mark";
  }
  if (owns && state::ReadStateString(state::kPriorDefaultUserName) != L"anna") {
    return "the owner's sign-in is not kept";
  }
  if (user && state::ReadStateString(state::kAccountSid) != user->sid) {
    return "an account without its record";
  }
  if (!state::FlagIsOn(state::kProvisioned)) {
    return nullptr;
  }
  if (!user || !owns || sim::Secret(L"DefaultPassword") != user->password) {
    return "it counts as provisioned and cannot sign in";
  }
  return winlogon(L"AutoAdminLogon") == (state::FlagIsOn(state::kMaintenance) ? L"0" : L"1")
             ? nullptr
             : "maintenance and automatic sign-in do not fit together";
}

class Crowd : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    test::OwnComputer();
    before_ = sim::DumpMachine();
    test::Enrol("", false);
    portal_.On(L"POST", test::kPairPath, [](const sim::Request&) {
      return sim::Response{.body = R"({"pairingCode":"ABCD1234"})", .headersDelay = 20};
    });
    portal_.On(L"GET", test::kClaimPath, [this](const sim::Request&) {
      return sim::Response{.body = R"({"deviceToken":"tok-)" + std::to_string(++tokens_) + "\"}"};
    });
    portal_.On(L"POST", test::kCheckInPath, [this](const sim::Request&) {
      const int number = ++checkIns_;
      return number % 7 == 0 ? sim::Response{.status = 401, .body = R"({"status":"revoked"})", .headersDelay = 300}
                             : sim::Response{.body = R"({"status":"enrolled","exitPassword":"Way out","name":"Hall )" +
                                                     std::to_string(number) + "\"}",
                                             .headersDelay = static_cast<DWORD>(number * 37 % 400)};
    });
  }

  sim::ScriptedPortal portal_;
  std::string before_;
  std::atomic<int> tokens_{0}, checkIns_{0};
  std::atomic<const char*> broken_{nullptr};
};

TEST_F(Crowd, EightThreadsNeitherBlockEachOtherNorLoseAnything) {
  sim::VirtualClock clock(test::kMorning);
  using Role = void (*)(unsigned);
  constexpr Role kPair = [](unsigned) {
    test::Ask(portal::PairBegin);
    test::Ask(portal::PairCheck, R"({"code":"ABCD1234"})");
  };
  constexpr Role kRoles[] = {
      kPair,
      kPair,
      [](unsigned) { ProvisionIfNeeded(enrolment::ReadDeviceToken().Get()); },
      [](unsigned) {
        FinishPendingRemoval();
        const text::Secret token = enrolment::ReadDeviceToken();
        portal::HandleDeviceStatus(portal::CheckIn(token.Get()), token.Get());
        TrimPrivilegedGroups();
        ApplyKioskPolicies();
      },
      [](unsigned random) {
        command::PostReplyAction after = nullptr;
        const text::Secret token = NewUnlockToken(2);
        test::Ask(Maintenance, random % 3 == 0 ? test::Credentials("way out") : test::Credentials("", token.Get()), 2,
                  &after);
        if (after != nullptr) {
          after();
        }
      },
      [](unsigned random) {
        const text::Secret token = enrolment::ReadDeviceToken();
        if (random % 4 == 0) {
          RemoveKioskMode(random % 8 == 0, "because", &token.Get());
          state::ProtectStateKey();
        }
      },
      [](unsigned random) {
        sim::SetSession(2, L"NorvaneKiosk", sim::ComputerName());
        sim::SetSession(3, L"anna", sim::ComputerName());
        sim::MakeStubborn(2, 700);  // whoever waits for its end holds the account lock meanwhile
        OnSessionChange(random % 2 == 0 ? WTS_SESSION_LOGON : WTS_SESSION_LOGOFF, 2 + random % 3 / 2);
        RememberAdministratorSessions();
      },
      [](unsigned random) {
        if (random % 3 == 0) {
          EndMaintenance("test");
        }
        test::Ask(Unlock, test::Credentials("Way out"), 2);
      },
  };
  std::vector<HANDLE> threads;
  for (const Role role : kRoles) {
    const auto body = [this, role, seed = static_cast<unsigned>(threads.size() + 1)]() noexcept {
      std::minstd_rand random(seed);
      for (int i = 0; i < 40; ++i) {
        role(static_cast<unsigned>(random() >> 8));
        if (const char* const broken = BrokenInvariant()) {
          broken_ = broken;
        }
        Sleep(static_cast<DWORD>(random() % 400));
      }
    };
    threads.push_back(win32::StartThread(body).Release());
  }
  EXPECT_EQ(WaitForMultipleObjects(8, threads.data(), TRUE, 86'400'000), WAIT_OBJECT_0);
  EXPECT_EQ(broken_.load(), nullptr) << broken_.load();
  RemoveKioskMode(false, "in the end");
  std::set<std::string> kept = test::Differences(before_);
  std::erase_if(kept, [](const std::string& each) { return each.find("\\kiosk\\maintenance") != std::string::npos; });
  EXPECT_EQ(kept, std::set<std::string>{});
  const std::vector<std::string> texts = test::LogTexts();
  for (const char* happened : {"INFO provisioned:", "WARN removing kiosk mode: removed in the portal",
                               "WARN removing kiosk mode: because", "INFO maintenance: auto sign-in skipped",
                               "INFO maintenance over (", "INFO terminal settings unlocked", "INFO paired:"}) {
    EXPECT_GE(std::count_if(texts.begin(), texts.end(), [=](const auto& text) { return text.starts_with(happened); }),
              3)
        << happened;
  }
}

// A thread in the place of the other process: what a mutex lets nobody tell apart.
TEST_F(Crowd, WhoWaitsForAnotherProcessGoesOnAfterTwentySecondsAndNotAfterAStop) {
  sim::VirtualClock clock(test::kMorning);
  ASSERT_TRUE(win32::CreateStopEvent());
  std::string outcome;
  const auto provision = [&]() noexcept { outcome = ProvisionKioskAccount({}); };
  const CrossProcessGuard other;
  const win32::KernelHandle mutex(OpenMutexW(READ_CONTROL, FALSE, L"Global\\NorvaneKioskAccount"));
  BYTE descriptor[1024];
  DWORD size = sizeof(descriptor);
  ASSERT_NE(GetKernelObjectSecurity(mutex.Get(), DACL_SECURITY_INFORMATION, descriptor, size, &size), 0);
  EXPECT_EQ(sim::SddlText(descriptor), L"D:P(A;;GA;;;SY)(A;;GA;;;BA)");
  win32::KernelHandle thread = win32::StartThread(provision);
  clock.RunFor(19'900);
  EXPECT_EQ(sim::UserNames().size(), 1U);
  clock.RunFor(300);
  EXPECT_EQ(outcome, "");
  test::ExpectProvisioned();
  EXPECT_EQ(test::CountLogged("WARN kiosk account: going on without the lock between processes (258)"), 1);
  const std::string provisioned = sim::DumpMachine();
  thread = win32::StartThread(provision);
  clock.RunFor(5'000);
  win32::RequestStop();
  clock.RunFor(0);
  EXPECT_EQ(outcome, "state_write_failed");
  EXPECT_EQ(sim::DumpMachine(), provisioned);
}

// The uninstalling program waits for a kiosk session that does not end; the service provisions meanwhile: not before
// the other is done, or is gone.
TEST(TwoProcesses, TheServiceWaitsForAnUninstallAndTakesOverFromADeadOne) {
  constexpr wchar_t kRole[] = L"as-the-uninstalling-program";
  if (test::ThisTestIs(kRole)) {
    service::Uninstall();
    return;
  }
  for (const bool killed : {false, true}) {
    SCOPED_TRACE(killed);
    test::ResetComputer();
    test::OwnComputer();
    const std::string before = sim::DumpMachine();
    test::Enrol();
    const DWORD session = sim::SignIn(L"NorvaneKiosk");
    sim::MakeStubborn(session, INFINITE);
    const std::string asked = "INFO logged off kiosk session " + std::to_string(session);
    const int loggedBefore = test::CountLogged(asked);
    const win32::KernelHandle other = test::StartThisTestAs(kRole);
    ASSERT_TRUE(test::Becomes([&] { return test::CountLogged(asked) > loggedBefore; }));

    std::string outcome;
    const win32::KernelHandle thread = win32::StartThread([&]() noexcept { outcome = ProvisionIfNeeded("tok-1"); });
    EXPECT_EQ(WaitForSingleObject(thread.Get(), 300), DWORD{WAIT_TIMEOUT}) << outcome;
    EXPECT_EQ(WaitForSingleObject(other.Get(), 0), DWORD{WAIT_TIMEOUT});
    killed ? static_cast<void>(TerminateProcess(other.Get(), 1)) : sim::SignOut(session);
    ASSERT_EQ(WaitForSingleObject(thread.Get(), 10'000), WAIT_OBJECT_0);
    ASSERT_EQ(WaitForSingleObject(other.Get(), 10'000), WAIT_OBJECT_0);
    EXPECT_EQ(outcome, kEnrolmentOver);
    if (killed) {
      EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending) && state::TokenIsStored());
      sim::SignOut(session);
      FinishPendingRemoval();
    } else {
      HKEY key = nullptr;
      EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, state::kStateKey, &key), ERROR_FILE_NOT_FOUND);
    }
    EXPECT_EQ(test::Differences(before), std::set<std::string>{});
  }
}

}  // namespace
}  // namespace kiosk::account
