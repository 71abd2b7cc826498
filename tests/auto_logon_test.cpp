// Automatic sign-in, where the whole of provisioning and removal does not show it: tests/owner_test.cpp has the
// computers that get their settings back.
#include "account/auto_logon.h"

#include "account/auto_logon_owner.h"
#include "account/maintenance.h"
#include "account/provisioning.h"
#include "account/sign_in_secret.h"
#include "account/unlock_token.h"
#include "sim/computer.h"
#include "sim/faults.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "sim/shutdown.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

#include <optional>
#include <tuple>

namespace kiosk::account {
namespace {

using test::Winlogon;

class AutoLogonTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    test::OwnComputer();
  }
};

// Somebody pointed it elsewhere by hand: with a password in the registry, with a secret, or at a terminal of which no
// digest tells what its secret was.
TEST_F(AutoLogonTest, AnotherUsersAutoSignInIsLeftAlone) {
  void (*const waysToSayElsewhere[])() = {
      [] { test::SetString(kWinlogonKey, L"DefaultPassword", L""); },
      [] { sim::SetSecret(L"DefaultPassword", L"theirs"); },
      [] { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, state::kStateKey, L"AutoLogonDigest"); },
  };
  for (const auto& sayElsewhere : waysToSayElsewhere) {
    SCOPED_TRACE(&sayElsewhere - waysToSayElsewhere);
    test::ResetComputer();
    test::OwnComputer();
    test::SetDword(state::kStateKey, L"AutoLogonRestoring", 1);  // an earlier removal could not delete it
    test::Enrol();
    sayElsewhere();
    test::SetString(kWinlogonKey, L"DefaultUserName", L"Łukasz");
    const std::string before = sim::DumpMachine();
    RepairAutoLogon();
    KeepAutoLogon();
    PrepareForShutdown();
    EXPECT_EQ(sim::DumpMachine(), before);
    // What the service switched off it switches on again, for whomever.
    test::SetDword(state::kStateKey, L"Maintenance", 1);
    test::SetString(kWinlogonKey, L"AutoAdminLogon", L"0");
    EXPECT_TRUE(EndMaintenance("test"));
    EXPECT_EQ(sim::DumpMachine(), before);
    RestoreAutoLogon();
    EXPECT_EQ(sim::DumpMachine(), before);
    EXPECT_EQ(test::StateNames(),
              (std::set<std::wstring>{L"AccountSid", L"DeviceToken", L"OwnsHideFastUserSwitching", L"Provisioned"}));
    EXPECT_EQ(test::LogTexts().back(), "WARN auto sign-in now names 'Łukasz', not NorvaneKiosk; left as it is");
  }
}

// What people do at a terminal, whom Windows then names for automatic sign-in, and that the kiosk is back after the
// next start of Windows all the same.
class Days : public AutoLogonTest {
 protected:
  void SetUp() override {
    AutoLogonTest::SetUp();
    test::Enrol();
    ASSERT_EQ(sim::RestartComputer(), 1U);
    clock_.RunFor(60'000);
  }
  static void EnterMaintenance() {
    command::PostReplyAction after = nullptr;
    const text::Secret token = NewUnlockToken(1);
    test::Ask(Maintenance, test::Credentials("", token.Get()), 1, &after);
    ASSERT_NE(after, nullptr);
    after();
  }
  // Until the end of the day, or with `signOut` back out again.
  void AnnaSignsIn(bool signOut) {
    const DWORD session = sim::SignIn(L"anna");
    OnSessionChange(WTS_SESSION_LOGON, session);
    ASSERT_EQ(Winlogon(L"DefaultUserName"), L"anna");
    if (signOut) {
      sim::SignOut(session);
      OnSessionChange(WTS_SESSION_LOGOFF, session);
      clock_.RunFor(1);
    }
  }
  static void ExpectTheKioskBack() {
    EXPECT_TRUE(AutoLogonNamesKiosk());
    EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";
  }
  // The power goes during maintenance, and comes back.
  void CutMaintenanceShort() {
    EnterMaintenance();
    clock_.RunFor(60'000);
    EXPECT_EQ(sim::RestartComputer(), 0U);
  }

  sim::VirtualClock clock_{test::kMorning};
};

TEST_F(Days, TheKioskIsBackWhoeverSignedIn) {
  EnterMaintenance();
  AnnaSignsIn(true);
  ExpectTheKioskBack();

  AnnaSignsIn(true);  // past the kiosk, with Shift
  KeepAutoLogon();
  ExpectTheKioskBack();

  EnterMaintenance();
  AnnaSignsIn(false);
  PrepareForShutdown();
  ExpectTheKioskBack();

  AnnaSignsIn(true);  // while the service was not running
  RepairAutoLogon();
  ExpectTheKioskBack();

  AnnaSignsIn(true);
  sim::lsaError.Set(ERROR_NO_SYSTEM_RESOURCES);
  KeepAutoLogon();
  sim::lsaError.Set(0);
  ExpectTheKioskBack();

  test::SetString(kWinlogonKey, L"DefaultDomainName", L"OLD-NAME");  // which the computer had until now
  RepairAutoLogon();
  ExpectTheKioskBack();

  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, state::kStateKey, L"AutoLogonDigest");  // as an earlier version left it
  RepairAutoLogon();
  AnnaSignsIn(true);
  KeepAutoLogon();
  ExpectTheKioskBack();

  AnnaSignsIn(true);
  EXPECT_EQ(ProvisionKioskAccount({}), "");  // another secret
  AnnaSignsIn(true);
  KeepAutoLogon();
  ExpectTheKioskBack();
  EXPECT_EQ(test::CountLogged("INFO auto sign-in names NorvaneKiosk again"), 8);
}

// The secret is read only when the name has changed, and not while somebody else has the switch: maintenance, an
// administrator, a set-up that is not done.
TEST_F(Days, TheSecretIsReadOnceForAChangedName) {
  const auto keeps = [](int changes) {
    const int before = sim::LsaQuestions();
    const sim::FaultPass pass;
    KeepAutoLogon();
    EXPECT_EQ(pass.Count() != 0, changes != 0);
    EXPECT_EQ(sim::LsaQuestions() - before, changes);
  };
  AnnaSignsIn(true);
  for (const wchar_t* name : {L"Maintenance", L"Provisioned"}) {
    const bool on = state::ReadDword(state::kStateKey, name) == DWORD{1};
    test::SetDword(state::kStateKey, name, on ? 0 : 1);
    keeps(0);
    test::SetDword(state::kStateKey, name, on ? 1 : 0);
  }
  test::SetString(kWinlogonKey, L"AutoAdminLogon", L"0");
  keeps(0);
  test::SetString(kWinlogonKey, L"AutoAdminLogon", L"1");
  keeps(1);
  keeps(0);
}

TEST_F(Days, AMaintenanceThatWasCutShortEndsInARestart) {
  CutMaintenanceShort();
  RepairMaintenance();
  EXPECT_EQ(test::LogTexts().back(), "INFO maintenance was cut short: restarting into kiosk mode in 300 s");
  clock_.RunFor(299'999);
  EXPECT_FALSE(sim::PendingShutdown());
  clock_.RunFor(251);
  EXPECT_TRUE(sim::PendingShutdown());
  EXPECT_EQ(test::LogTexts().back(), "INFO restarting into kiosk mode (maintenance was cut short)");
  ExpectTheKioskBack();
  RepairMaintenance();
  clock_.RunFor(600'000);
  EXPECT_FALSE(sim::PendingShutdown()) << "once is enough";
}

TEST_F(Days, NobodyIsThrownOutForAMaintenanceThatWasCutShort) {
  const struct {
    const char* what;
    void (*before)();  // the service starts
    void (*after)();
  } cases[] = {
      {"somebody signs in", [] {}, [] { OnSessionChange(WTS_SESSION_LOGON, sim::SignIn(L"anna")); }},
      {"the service was not told of it", [] {}, [] { sim::SetSession(1, L"anna", L"HERE"); }},
      {"the kiosk signs in", [] {}, [] { OnSessionChange(WTS_SESSION_LOGON, sim::SignIn(L"NorvaneKiosk")); }},
      {"somebody is there already", [] { sim::SignIn(L"anna"); }, [] {}},
      {"nobody knows who is there", [] { sim::MakeStubborn(4, 1); }, [] {}},
      {"the kiosk is not set up", [] { test::SetDword(state::kStateKey, L"Provisioned", 0); }, [] {}},
      {"it is somebody else's",
       [] {
         sim::SetSecret(L"DefaultPassword", L"theirs");
         test::SetString(kWinlogonKey, L"DefaultUserName", L"Bert");
       },
       [] {}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    test::ResetComputer();
    SetUp();
    CutMaintenanceShort();
    each.before();
    RepairMaintenance();
    EXPECT_FALSE(state::FlagIsOn(state::kMaintenance));
    each.after();
    clock_.RunFor(600'000);
    sim::EndAllSessions();
    clock_.RunFor(301'000);
    EXPECT_FALSE(sim::PendingShutdown());
  }
}

TEST_F(AutoLogonTest, ARestartDuringTheSetUpNeverShowsWindowsOwnShell) {
  static std::string unsafe;  // a change before which Windows could sign the kiosk in, and would make its profile
  const std::pair<const char*, void (*)()> cases[] = {
      {"somebody deleted the account",
       [] {
         EXPECT_EQ(ProvisionKioskAccount({}), "");
         sim::RemoveUser(L"NorvaneKiosk");
       }},
      {"somebody damaged the profile",
       [] {
         EXPECT_EQ(ProvisionKioskAccount({}), "");
         test::WriteWholeFile(sim::ProfileFolder(test::Kiosk().sid) + L"\\NTUSER.DAT", "junk");
       }},
      {"the owner had it on, for nobody",
       [] {
         test::SetString(kWinlogonKey, L"AutoAdminLogon", L"1");
         test::SetString(kWinlogonKey, L"DefaultUserName", L"");
       }},
  };
  const sim::VirtualClock clock(test::kMorning);
  for (const auto& [what, prepare] : cases) {
    SCOPED_TRACE(what);
    test::ResetComputer();
    test::Enrol("", false);
    prepare();
    unsafe.clear();
    sim::SetChangeHook([](const sim::ChangeCall& call) -> DWORD {
      const sim::User kiosk = test::Kiosk();
      if (!kiosk.sid.empty() && sim::ProfileFolder(kiosk.sid).empty() && Winlogon(L"AutoAdminLogon") == L"1" &&
          sim::Secret(L"DefaultPassword") == kiosk.password) {
        unsafe = call.Text();
      }
      return 0;
    });
    EXPECT_EQ(ProvisionKioskAccount({}), "");
    sim::SetChangeHook(nullptr);
    EXPECT_EQ(unsafe, "");
    EXPECT_EQ(sim::RestartComputer(), 1U);
  }
}

// Windows takes no secret, and notes who signs in meanwhile: that is nobody's choice of automatic sign-in.
TEST_F(AutoLogonTest, WhereNoSecretCouldBeStoredTheOwnersSettingsComeBack) {
  for (const auto& theirs : {std::optional<std::wstring>(), std::optional<std::wstring>(L"theirs")}) {
    test::ResetComputer();
    test::OwnComputer();
    test::SetString(kWinlogonKey, L"AutoAdminLogon", L"no");
    if (theirs) {
      sim::SetSecret(L"DefaultPassword", *theirs);
    }
    test::Enrol("", false);
    const auto settings = [] {
      return std::tuple(Winlogon(L"AutoAdminLogon"), Winlogon(L"DefaultUserName"), Winlogon(L"DefaultDomainName"),
                        Winlogon(L"DefaultPassword"), sim::Secret(L"DefaultPassword"));
    };
    const auto before = settings();
    sim::SetChangeHook([](const sim::ChangeCall& call) -> DWORD {
      return call.Text().find("LsaStorePrivateData(") == std::string::npos ? 0 : DWORD{ERROR_NO_SYSTEM_RESOURCES};
    });
    EXPECT_EQ(ProvisionKioskAccount({}), "lsa_failed");
    sim::SetChangeHook(nullptr);
    EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"0");
    test::SetString(kWinlogonKey, L"DefaultUserName", L"Łukasz");
    RestoreAutoLogon();
    EXPECT_EQ(settings(), before);
  }
}

TEST_F(AutoLogonTest, CopiesWithoutTheirMark) {
  test::Enrol("", false);
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, L"AutoLogonCount");
  for (const bool markLost : {false, true}) {
    // Of a take-over that never came to its mark.
    test::SetString(state::kStateKey, L"PriorAutoLogonCount", L"stale");
    RestoreAutoLogon();
    EXPECT_EQ(test::StateNames(), std::set<std::wstring>{});
    test::SetString(state::kStateKey, L"PriorAutoLogonCount", L"stale");
    const std::string before = sim::DumpMachine();
    EXPECT_TRUE(TakeOverAutoLogon());
    EXPECT_EQ(sim::DumpMachine(), before);
    EXPECT_EQ(state::ReadStateString(state::kPriorDefaultUserName), L"anna");
    EXPECT_FALSE(test::HasValue(state::kStateKey, L"PriorAutoLogonCount"));
    const sim::FaultPass pass;
    EXPECT_TRUE(TakeOverAutoLogon());
    EXPECT_EQ(pass.Count(), 0) << "what is taken over is saved once";
    test::SetString(kWinlogonKey, L"DefaultUserName", L"norvaneKIOSK");
    if (markLost) {  // under a kiosk, by somebody's hand: nothing is restored then, and the next set-up finds the
                     // copies
      RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, state::kStateKey, L"OwnsAutoLogon");
      RestoreAutoLogon();
      EXPECT_TRUE(TakeOverAutoLogon());
    }
    RestoreAutoLogon();
    EXPECT_EQ(sim::DumpMachine(), before);
    EXPECT_EQ(test::StateNames(), std::set<std::wstring>{});
  }
}

TEST_F(AutoLogonTest, SecretAndSwitchTellTheirFailures) {
  EXPECT_TRUE(StoreAutoLogonSecret(nullptr, 0)) << "there was none";
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    EXPECT_FALSE(StoreAutoLogonSecret(L"x", 1));
  }
  for (const wchar_t* text : {L"1", L"0"}) {
    const win32::LockGuard guard(AutoLogonLock());
    SetAutoAdminLogon(*text == L'1');
    state::RawValue value;
    EXPECT_EQ(state::ReadValue(kWinlogonKey, L"AutoAdminLogon", value), ERROR_SUCCESS);
    EXPECT_TRUE(value.type == REG_SZ && value.Text() == text && value.bytes.size() == 4);
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    SetAutoAdminLogon(*text == L'1');
  }
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"ERROR LsaStorePrivateData failed (5)", "ERROR cannot set AutoAdminLogon=1",
                                      "ERROR cannot set AutoAdminLogon=0"}));
}

}  // namespace
}  // namespace kiosk::account
