// Maintenance in and out.
#include "account/maintenance.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/auto_logon_owner.h"
#include "account/sign_in_secret.h"
#include "account/unlock.h"
#include "json/serialise.h"
#include "sim/fault_driver.h"
#include "sim/lsa.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"
#include "win32/clock.h"
#include "win32/hash.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

namespace kiosk::account {
namespace {

using test::kKioskSession;
using test::kOtherSession;
using test::SetDword;
using test::SetString;
using test::Winlogon;

constexpr char kEnteredLine[] =
    "INFO maintenance: auto sign-in skipped until the administrator signs out or Windows restarts";

class MaintenanceTest : public test::KioskTerminal {
 protected:
  static bool IsOn() { return state::FlagIsOn(state::kMaintenance); }
  std::string Enter(const std::string& password, const std::string& token = {}) {
    after_ = nullptr;
    return json::Serialise(test::Ask(Maintenance, test::Credentials(password, token), kKioskSession, &after_));
  }
  void Entered() { ASSERT_EQ(Enter("Way out"), R"({"ok":true})"); }

  command::PostReplyAction after_ = nullptr;
};

TEST_F(MaintenanceTest, ThePasswordOpensAndTheSignOutIsLeftForLater) {
  Entered();
  EXPECT_TRUE(IsOn());
  EXPECT_EQ(state::ReadStateQword(state::kMaintenanceAt), clock_.SystemTime());
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"0");
  EXPECT_EQ(test::CountLogged(kEnteredLine), 1);
  EXPECT_EQ(test::CountLogged("INFO logged off kiosk session 2"), 0);
  ASSERT_NE(after_, nullptr);
  const std::uint64_t before = clock_.Elapsed();
  after_();
  EXPECT_EQ(clock_.Elapsed(), before);
  EXPECT_EQ(test::CountLogged("INFO logged off kiosk session 2"), 1);
  EXPECT_EQ(test::CountLogged("INFO logged off kiosk session 3"), 0);
}

TEST_F(MaintenanceTest, ATokenOpensOnceAndBesideAPasswordCountsForNothing) {
  const auto unlock = [] {
    return json::Member(test::Ask(Unlock, test::Credentials("Way out"), kKioskSession), "unlockToken").text();
  };
  const auto refused = [](const std::string& code) { return R"({"ok":false,"error":")" + code + "\"}"; };
  constexpr char kAccepted[] = "INFO maintenance: accepted with the terminal settings unlock";
  EXPECT_EQ(Enter("", "no token"), refused("not_unlocked"));
  EXPECT_EQ(CheckIns(), 0U);
  EXPECT_EQ(Failures(), 0U);
  EXPECT_EQ(Enter(""), refused("wrong_password"));
  EXPECT_EQ(Enter("wrong", "no token"), refused("wrong_password"));
  EXPECT_FALSE(IsOn());
  EXPECT_EQ(after_, nullptr);
  EXPECT_EQ(Enter("way out", "no token"), R"({"ok":true})");
  EXPECT_EQ(test::CountLogged(kAccepted), 0);
  EndMaintenance("test");

  const std::string token = unlock();
  const std::size_t checkIns = CheckIns();
  EXPECT_EQ(Enter("", token), R"({"ok":true})");
  EXPECT_EQ(CheckIns(), checkIns);
  EXPECT_EQ(test::CountLogged(kAccepted), 1);
  EXPECT_EQ(Enter("", token), refused("not_unlocked"));  // it was used up
  EndMaintenance("test");

  const std::string another = unlock();
  SetDword(state::kStateKey, L"Provisioned", 0);
  EXPECT_EQ(Enter("", another), refused("not_provisioned"));
  state::DeleteStateValue(state::kDeviceToken);
  EXPECT_EQ(Enter("", another), refused("not_enrolled"));
  EXPECT_FALSE(IsOn());
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
}

TEST_F(MaintenanceTest, ATeardownThatIsUnderWayWins) {
  std::string reply;
  const win32::KernelHandle thread = [&] {
    win32::LockGuard guard(AccountLock());
    win32::KernelHandle started = win32::StartThread([&]() noexcept { reply = Enter("Way out"); });
    clock_.RunFor(1000);  // it has asked the portal and waits for the lock
    EXPECT_EQ(CheckIns(), 1U);
    SetDword(state::kStateKey, L"TeardownPending", 1);
    return started;
  }();
  clock_.RunFor(1000);
  EXPECT_EQ(reply, R"({"ok":false,"error":"not_enrolled"})");
  EXPECT_FALSE(IsOn());
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
  EXPECT_EQ(after_, nullptr);
}

TEST_F(MaintenanceTest, AnAdministratorWhoSignsOutEndsIt) {
  constexpr char kOver[] = "INFO maintenance over (the administrator signed out): kiosk sign-in restored";
  OnSessionChange(WTS_SESSION_LOGON, kOtherSession);  // before it began: does not count
  Entered();
  sim::SetSession(5, L"Bert", L"DOMAIN");
  OnSessionChange(WTS_SESSION_LOGOFF, kOtherSession);
  for (const DWORD session : {kKioskSession, DWORD{0}}) {
    OnSessionChange(WTS_SESSION_LOGON, session);
    OnSessionChange(WTS_SESSION_LOGOFF, session);
  }
  OnSessionChange(WTS_SESSION_UNLOCK, 5);
  OnSessionChange(WTS_SESSION_LOGOFF, 5);
  EXPECT_TRUE(IsOn());
  OnSessionChange(WTS_SESSION_LOGON, 5);
  OnSessionChange(WTS_SESSION_LOCK, 5);
  clock_.RunFor(1);
  EXPECT_TRUE(IsOn());
  OnSessionChange(WTS_SESSION_LOGOFF, 5);
  clock_.RunFor(1);
  EXPECT_FALSE(state::ReadState(state::kMaintenance) || state::ReadState(state::kMaintenanceAt));
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
  EXPECT_EQ(test::CountLogged(kOver), 1);
  EndMaintenance("twice");
  EXPECT_EQ(test::CountLogged("INFO maintenance over (twice): kiosk sign-in restored"), 0);

  // The unlock of a session that signs out is over, in maintenance or not.
  const std::string token =
      json::Member(test::Ask(Unlock, test::Credentials("Way out"), kKioskSession), "unlockToken").text();
  OnSessionChange(WTS_SESSION_LOGOFF, kKioskSession);
  EXPECT_FALSE(CheckUnlockToken(token, kKioskSession));
}

TEST_F(MaintenanceTest, AServiceThatStartsAgainKnowsWhoIsSignedIn) {
  RememberAdministratorSessions();  // not in maintenance: nobody
  sim::SetSession(4, L"", L"");
  sim::SetSession(0, L"Anna", sim::ComputerName());
  SetDword(state::kStateKey, L"Maintenance", 1);
  OnSessionChange(WTS_SESSION_LOGOFF, kOtherSession);
  RememberAdministratorSessions();
  for (const DWORD other : {DWORD{0}, DWORD{4}, kKioskSession}) {
    OnSessionChange(WTS_SESSION_LOGOFF, other);
    clock_.RunFor(1);
    EXPECT_TRUE(IsOn()) << other;
  }
  OnSessionChange(WTS_SESSION_LOGOFF, kOtherSession);
  clock_.RunFor(1);
  EXPECT_FALSE(IsOn());
}

TEST_F(MaintenanceTest, ItDoesNotSurviveARestartOfWindows) {
  clock_.RunFor(60'000);
  const std::uint64_t boot = clock_.SystemTime() - win32::TickCount() * (win32::kFileTimeSecond / 1000);
  const std::pair<std::uint64_t, bool> cases[] = {
      {boot - 1, false}, {0, false}, {boot, true}, {boot + win32::kFileTimeSecond, true}};
  for (const auto& [at, stays] : cases) {
    SetDword(state::kStateKey, L"Maintenance", 1);
    state::WriteStateQword(state::kMaintenanceAt, at);
    SetString(kWinlogonKey, L"AutoAdminLogon", L"0");
    RepairMaintenance();
    EXPECT_EQ(IsOn(), stays) << at;
    EXPECT_EQ(Winlogon(L"AutoAdminLogon"), stays ? L"0" : L"1");
  }
  EXPECT_EQ(test::CountLogged("INFO maintenance over (Windows restarted): kiosk sign-in restored"), 2);
  // A start in the same boot, after the service was ended between the mark and the switch.
  SetString(kWinlogonKey, L"AutoAdminLogon", L"1");
  RepairMaintenance();
  EXPECT_FALSE(IsOn());
  EXPECT_EQ(test::CountLogged("INFO maintenance over (it was cut short as it began): kiosk sign-in restored"), 1);
}

TEST_F(MaintenanceTest, EndingLeavesASettingThatIsNotTheServicesAlone) {
  for (const wchar_t* gone : {L"OwnsAutoLogon", L"DeviceToken"}) {
    test::MakeKioskTerminal();
    Entered();
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, state::kStateKey, gone);
    EndMaintenance("test");
    EXPECT_FALSE(IsOn());
    EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"0");
  }
}

TEST_F(MaintenanceTest, ItDoesNotEndWhileNobodyCanTellWhoseTheSignInIs) {
  sim::SetSecret(L"DefaultPassword", L"secret");
  NoteSecretAsOurs();
  for (const wchar_t* unreadable : {L"OwnsAutoLogon", L"DeviceToken", L"AutoLogonDigest", L"TeardownPending"}) {
    SCOPED_TRACE(sim::Narrow(unreadable));
    Entered();
    SetString(kWinlogonKey, L"DefaultUserName", L"Anna");
    {
      const sim::FailingReads failing(unreadable, ERROR_NO_SYSTEM_RESOURCES, 1);
      EXPECT_FALSE(EndMaintenance("too early to tell"));
    }
    EXPECT_TRUE(IsOn()) << "and the kiosk would never sign in again";
    EXPECT_EQ(Winlogon(L"DefaultUserName"), L"Anna");
    EXPECT_TRUE(EndMaintenance("test"));
    EXPECT_TRUE(AutoLogonNamesKiosk());
    EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
  }
}

// Whatever fails and whenever the process ends: after the next start of Windows the kiosk signs in by itself again,
// whoever Windows names.
TEST(MaintenanceFaults, AStartOfWindowsEndsEveryHalf) {
  const auto enter = [] {
    const sim::VirtualClock clock(test::kMorning);
    const text::Secret token = NewUnlockToken(kKioskSession);
    test::Ask(Maintenance, test::Credentials("", token.Get()), kKioskSession);
  };
  for (const bool ending : {false, true}) {
    const auto prepare = [&] {
      test::ResetComputer();
      test::MakeKioskTerminal();
      const std::wstring secret = L"secret";
      sim::SetSecret(L"DefaultPassword", secret);
      SetString(state::kStateKey, L"AutoLogonDigest",
                win32::ToWide(win32::Sha256Hex({reinterpret_cast<const char*>(secret.data()), secret.size() * 2})));
      if (ending) {
        enter();
        SetString(kWinlogonKey, L"DefaultUserName", L"Anna");
      }
    };
    const auto run = [&] { ending ? static_cast<void>(EndMaintenance("test")) : enter(); };
    const auto nextDay = [] {
      sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 22, 9));
      RepairAutoLogon();
      RepairMaintenance();
      EXPECT_FALSE(state::FlagIsOn(state::kMaintenance));
      EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
      EXPECT_TRUE(AutoLogonNamesKiosk());
    };
    sim::RunFaultScenario(
        {.name = ending ? L"end maintenance" : L"enter maintenance", .prepare = prepare, .run = run, .later = nextDay});
  }
}

}  // namespace
}  // namespace kiosk::account
