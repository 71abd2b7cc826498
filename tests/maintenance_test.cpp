// The exit password and its lockout; maintenance in and out.
#include "account/maintenance.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/auto_logon_owner.h"
#include "account/exit_password.h"
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

constexpr char kLockoutLine[] = "WARN maintenance: 5 attempts without the right password; refusing for 300 s";
constexpr char kEnteredLine[] =
    "INFO maintenance: auto sign-in skipped until the administrator signs out or Windows restarts";

class ExitPassword : public test::KioskTerminal {};

TEST_F(ExitPassword, OnlyTheRightOneMatches) {
  const std::string longOne(8000, 'x');
  const struct {
    std::string json;
    std::string given;
    bool matches;
  } cases[] = {
      {R"(" \tWay out\r\n")", " \t\v\f\r\nwAY OUT ", true},
      {R"("Z@[`az{")", "z@[`AZ{", true},
      {"\"" + longOne + "\"", longOne, true},
      {R"("Way out")", "Way ou", false},
      {R"("Way out")", "Way outs", false},
      {R"("@[")", "`{", false},
      {R"("Ä")", "ä", false},
      {R"("Way out")", longOne, false},
      {R"("")", "", false},
      {R"(" \t ")", " ", false},
      {"null", "", false},
      {"12345", "12345", false},
      {R"(["Way out"])", "Way out", false},
  };
  for (const auto& each : cases) {
    SetExitPassword(each.json);
    EXPECT_EQ(VerifyExitPassword(each.given), each.matches ? "" : "wrong_password") << each.json << " " << each.given;
    EXPECT_EQ(Failures(), each.matches ? 0U : 1U);
    state::DeleteStateValue(state::kMaintenanceFailures);
  }
}

TEST_F(ExitPassword, FiveWrongOnesShutTheCheckForFiveMinutes) {
  for (DWORD i = 1; i <= 5; ++i) {
    EXPECT_EQ(test::CountLogged(kLockoutLine), 0);
    EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
    EXPECT_EQ(Failures(), i % 5);
  }
  EXPECT_EQ(state::ReadStateQword(state::kMaintenanceLockedUntil), clock_.SystemTime() + 3'000'000'000);
  EXPECT_TRUE(state::ReadState(state::kMaintenanceFailures));
  clock_.RunFor(299'999);
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  EXPECT_EQ(CheckIns(), 5U);
  clock_.RunFor(1);
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
  EXPECT_EQ(Failures(), 1U);
  EXPECT_EQ(VerifyExitPassword("Way out"), "");
  EXPECT_FALSE(state::ReadState(state::kMaintenanceFailures) || state::ReadState(state::kMaintenanceLockedUntil));
  EXPECT_EQ(test::CountLogged(kLockoutLine), 1);
}

TEST_F(ExitPassword, OddStoredValuesLockNobodyOutForLonger) {
  const std::uint64_t limit = clock_.SystemTime() + 3'000'000'000;
  for (const std::uint64_t until : {limit + 1, ~std::uint64_t{0}}) {  // the clock was set back
    state::WriteStateQword(state::kMaintenanceLockedUntil, until);
    EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
    EXPECT_EQ(state::ReadStateQword(state::kMaintenanceLockedUntil), limit);
  }
  clock_.RunFor(300'000);
  EXPECT_EQ(VerifyExitPassword("Way out"), "");
  SetString(state::kStateKey, L"MaintenanceFailures", L"4");
  SetString(state::kStateKey, L"MaintenanceLockedUntil", L"9");
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
  EXPECT_EQ(Failures(), 1U);
  SetDword(state::kStateKey, L"MaintenanceFailures", 0xFFFFFFFF);
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  for (const wchar_t* name : {L"MaintenanceFailures", L"MaintenanceLockedUntil"}) {
    const sim::FailingReads failing(name, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(VerifyExitPassword("Way out"), "busy") << "a shortage that a user makes is a free attempt";
  }
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
}

TEST_F(ExitPassword, EveryAttemptCountsWhateverBecomesOfIt) {
  const auto attempt = [](const char* code, DWORD failures) {
    EXPECT_EQ(VerifyExitPassword("Way out"), code);
    EXPECT_EQ(Failures(), failures) << code;
  };
  answer_ = {.status = 503};
  attempt("unreachable", 1);
  answer_ = {.status = 401, .body = R"({"status":"unknown"})"};
  attempt("unreachable", 2);
  for (const char* garbage :
       {"{", R"({"exitPassword":"Way out"})", R"({"status":"pending","exitPassword":"Way out"})"}) {
    SetDword(state::kStateKey, L"MaintenanceFailures", 2);
    answer_ = {.body = garbage};
    attempt("unreachable", 3);
  }
  SetDword(state::kStateKey, L"Provisioned", 0);
  attempt("not_provisioned", 4);
  EXPECT_EQ(CheckIns(), 5U);
  state::DeleteStateValue(state::kDeviceToken);
  attempt("not_enrolled", 5);
  EXPECT_EQ(test::CountLogged(kLockoutLine), 0);
  attempt("locked", 0);
  EXPECT_EQ(test::CountLogged(kLockoutLine), 1);
  EXPECT_EQ(CheckIns(), 5U);
}

// However long Windows refuses it.
TEST_F(ExitPassword, AnAttemptThatCannotBeCountedIsNotMade) {
  sim::SetChangeHook([](const sim::ChangeCall& call) -> DWORD {
    return call.object.ends_with(L"\\MaintenanceFailures") ? ERROR_NO_SYSTEM_RESOURCES : 0;
  });
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(VerifyExitPassword("Way out"), "busy");
  }
  EXPECT_EQ(CheckIns(), 0U);
  sim::SetChangeHook(
      [](const sim::ChangeCall& call) -> DWORD { return call.function == "RegFlushKey" ? ERROR_DISK_FULL : 0; });
  EXPECT_EQ(VerifyExitPassword("Way out"), "") << "a full disk locks nobody in";
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(VerifyExitPassword("guess"), "wrong_password");
  }
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  sim::SetChangeHook(nullptr);
}

TEST_F(ExitPassword, AnEndedEnrolmentOpensNothing) {
  portal_.On(L"POST", test::kCheckInPath, [this](const sim::Request&) {
    SetDword(state::kStateKey, L"TeardownPending", 1);
    return answer_;
  });
  EXPECT_EQ(VerifyExitPassword("Way out"), "not_enrolled");
  EXPECT_EQ(Failures(), 1U);
  test::MakeKioskTerminal();
  portal_.On(L"POST", test::kCheckInPath, test::kRevoked);
  EXPECT_EQ(VerifyExitPassword("Way out"), "not_enrolled");
  EXPECT_FALSE(state::TokenIsStored() || sim::FindUser(L"NorvaneKiosk"));
}

TEST_F(ExitPassword, OneCheckAtATime) {
  answer_.headersDelay = 5000;
  std::string first = "none";
  const win32::KernelHandle thread = win32::StartThread([&first]() noexcept { first = VerifyExitPassword("Way out"); });
  clock_.RunFor(1000);
  EXPECT_EQ(json::Serialise(test::Ask(Unlock, test::Credentials("Way out"), kKioskSession)),
            R"({"ok":false,"error":"busy"})");
  EXPECT_EQ(Failures(), 1U);
  clock_.RunFor(5000);
  EXPECT_EQ(first, "");
  EXPECT_EQ(CheckIns(), 1U);
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");  // and not "busy" for ever
}

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

// Attempts at the password until the check is shut; at most one more after a fifth that was cut short.
TEST(MaintenanceFaults, AnAttemptThatIsCutShortCounts) {
  const sim::VirtualClock clock(test::kMorning);
  sim::ScriptedPortal portal;
  portal.On(L"POST", test::kCheckInPath, sim::Response{.body = R"({"status":"enrolled","exitPassword":"Way out"})"});
  const auto prepare = [] {
    test::ResetComputer();
    test::MakeKioskTerminal();
    SetDword(state::kStateKey, L"MaintenanceFailures", 4);
  };
  const auto later = [] {
    const std::string next = VerifyExitPassword("wrong");
    EXPECT_TRUE(next == "locked" || next == "wrong_password") << next;
    EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  };
  sim::RunFaultScenario({.name = L"fifth wrong password",
                         .prepare = prepare,
                         .run = [] { VerifyExitPassword("wrong"); },
                         .later = later});
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
