#include "account/provisioning.h"

#include "account/kiosk_account.h"
#include "account/kiosk_restart.h"
#include "enrolment/device_token.h"
#include "sim/buffers.h"
#include "sim/computer.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "sim/random.h"
#include "sim/shutdown.h"
#include "tests/support/terminal.h"

#include <algorithm>

namespace kiosk::account {
namespace {

using test::CountLogged;
using test::HasValue;
using test::Kiosk;
using test::kUpdateKey;
using test::SetDword;
using test::SetString;
using test::Winlogon;

std::wstring Sid() { return Kiosk().sid; }
std::string Provision() { return ProvisionKioskAccount({}); }

// An enrolled computer that nobody has used for automatic sign-in, but whose sign-in names its last user.
void PrepareComputer() {
  test::ResetComputer();
  test::Enrol("", false);
  SetString(kWinlogonKey, L"DefaultUserName", L"Operator");
  SetString(kWinlogonKey, L"AutoLogonCount", L"7");
}

class ProvisioningTest : public testing::Test {
 protected:
  void SetUp() override { PrepareComputer(); }
  void TearDown() override { EXPECT_EQ(sim::openBuffers, 0); }

  sim::VirtualClock clock_{test::kMorning};
};

TEST_F(ProvisioningTest, SetsEverythingUpAndTwiceChangesNothingButThePassword) {
  SetDword(state::kStateKey, L"TeardownPending", 1);
  SetString(state::kStateKey, L"LastError", L"old");
  SetString(kWinlogonKey, L"DefaultPassword", L"clear text");
  {
    const sim::FaultPass pass;
    EXPECT_EQ(Provision(), "");
    for (const wchar_t* name : {L"AccountSid", L"AccountCreating", L"OwnsAutoLogon", L"OwnsHideFastUserSwitching"}) {
      EXPECT_TRUE(pass.Flushed(name)) << sim::Narrow(name);
    }
    // Marks before what they own; the secret after the name; "Provisioned" last.
    const char* const order[] = {"AccountCreating)",
                                 "NetUserAdd(",
                                 "AccountSid)",
                                 "\\OwnsAutoLogon)",
                                 "\\DefaultUserName)",
                                 "LsaStorePrivateData(",
                                 "\\OwnsHideFastUserSwitching)",
                                 "System\\HideFastUserSwitching)",
                                 "CreateProfile(",
                                 "\\AutoAdminLogon)"};
    std::size_t at = 0;
    for (const sim::ChangeCall& call : pass.Calls()) {
      at += at < std::size(order) && call.Text().find(order[at]) != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(at, std::size(order)) << order[std::min(at, std::size(order) - 1)];
    EXPECT_TRUE(pass.Calls().back().object.ends_with(L"\\Provisioned"));
  }
  test::ExpectProvisioned();
  const sim::User first = *sim::FindUser(L"NorvaneKiosk");
  EXPECT_EQ(first.fullName, L"Norvane");
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"1");
  EXPECT_FALSE(HasValue(kWinlogonKey, L"DefaultPassword") || HasValue(kWinlogonKey, L"AutoLogonCount"));
  EXPECT_EQ(state::ReadDword(kPasswordLessKey, L"DevicePasswordLessBuildVersion"), DWORD{0});
  EXPECT_EQ(state::ReadDword(kSystemPoliciesKey, L"EnableFirstLogonAnimation"), DWORD{0});
  EXPECT_EQ(state::ReadDword(kSystemPoliciesKey, L"HideFastUserSwitching"), DWORD{1});
  EXPECT_FALSE(HasValue(state::kStateKey, L"TeardownPending") || HasValue(state::kStateKey, L"LastError"));
  EXPECT_TRUE(IsKioskProvisioned());
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"INFO created NorvaneKiosk (" + sim::Narrow(first.sid) + ")",
                                      "INFO provisioned: NorvaneKiosk signs in at startup into "
                                      "C:\\Program Files\\Łódź\\NorvaneTessalyClient.exe --kiosk-shell"}));
  // In maintenance, and with its own name gone: no reason to refuse.
  SetString(kWinlogonKey, L"DefaultUserName", L"Operator");
  SetDword(state::kStateKey, L"Maintenance", 1);
  SetString(kWinlogonKey, L"AutoAdminLogon", L"0");
  EXPECT_EQ(Provision(), "");
  test::ExpectProvisioned();
  EXPECT_EQ(Winlogon(L"AutoAdminLogon"), L"0");
  EXPECT_EQ(Sid(), first.sid);
  EXPECT_NE(sim::AccountPassword(L"NorvaneKiosk"), first.password);
}

TEST_F(ProvisioningTest, EachFailureHasItsCodeAndIsOverWhenItsCauseIs) {
  struct {
    const char* call;  // that fails
    bool secondRun;    // after a successful one
    const char* code;
    unsigned long number;
  } const cases[] = {
      {"NetUserAdd(", false, "account_create_failed", 5},
      {"\\AccountCreating)", false, "state_write_failed", 0},
      {"RegSetValueExW(HKLM\\Software\\Norvane\\Tessaly\\Kiosk\\AccountSid)", false, "state_write_failed", 0},
      {"NetUserSetInfo(NorvaneKiosk 1003)", true, "account_password_failed", 5},
      {"NetUserSetInfo(NorvaneKiosk 1008)", true, "account_flags_failed", 5},
      {"NetLocalGroupAddMembers(", false, "group_failed", 0},
      {"\\PriorDefaultUserName)", false, "state_write_failed", 0},
      {"LsaStorePrivateData(", false, "lsa_failed", 0},
      {"RegSetValueExW(HKLM\\Software\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon\\DefaultUserName)", true,
       "winlogon_failed", 0},
      {"\\DefaultDomainName)", true, "winlogon_failed", 0},
      {"Winlogon\\AutoAdminLogon)", true, "winlogon_failed", 0},
      {"Winlogon\\AutoLogonCount)", false, "winlogon_failed", 0},
      {"CreateProfile(", false, "profile_failed", 0x80070005},
      {" hive)", false, "profile_failed", 0x80070005},
      {"RegLoadKeyW(", false, "hive_failed", 0},
      {"\\Kiosk\\Provisioned)", true, "state_write_failed", 0},
  };
  EXPECT_EQ(Provision(), "");  // its first line makes the log's folders
  for (const auto& failure : cases) {
    SCOPED_TRACE(failure.call);
    PrepareComputer();
    if (failure.secondRun) {
      EXPECT_EQ(Provision(), "");
    }
    const std::string line =
        std::string("ERROR provisioning failed: ") + failure.code + " (" + std::to_string(failure.number) + ")";
    const int logged = CountLogged(line);
    {
      const sim::FaultPass pass(failure.call, ERROR_ACCESS_DENIED);
      EXPECT_EQ(Provision(), failure.code);
    }
    EXPECT_EQ(CountLogged(line), logged + 1);
    EXPECT_EQ(sim::Narrow(state::ReadStateString(state::kLastError)), failure.code);
    EXPECT_EQ(state::FlagIsOn(state::kProvisioned),
              &failure == &cases[std::size(cases) - 1]);  // the mark itself was kept
    EXPECT_EQ(Provision(), "");
    test::ExpectProvisioned();
    EXPECT_FALSE(HasValue(state::kStateKey, L"LastError"));
  }
}

// Other refusals: tests/owner_test.cpp.
TEST_F(ProvisioningTest, RefusesWithoutTouchingAnything) {
  const auto expect = [](const char* code) {
    EXPECT_EQ(Provision(), code);
    EXPECT_EQ(test::StateNames(), (std::set<std::wstring>{L"LastError", L"ToldTroubles"}));
    EXPECT_EQ(sim::EventLogEntries(), std::vector<std::string>{"NorvaneKiosk error 202 [no_client] [0]"});
    EXPECT_EQ(CountLogged(std::string("ERROR provisioning failed: ") + code + " (0)"), 1);
    EXPECT_TRUE(sim::UserNames().empty());
  };
  SetString(kUpdateKey, L"ClientInstallDir", L"\\\\");
  expect("no_client");
  SetString(kUpdateKey, L"ClientInstallDir", L"C:\\Client");
  sim::FailAccountLookups(1722);
  expect("account_lookup_failed");
  EXPECT_EQ(CountLogged("ERROR NetUserGetInfo(NorvaneKiosk) failed (1722)"), 1);
  sim::FailAccountLookups(0);
  const sim::RandomScript refusing([](unsigned char*, std::size_t) { return false; });
  expect("random_failed");
}

TEST_F(ProvisioningTest, AnAccountOfARunCutShortIsTheServicesOwn) {
  struct {
    int createdAfter;  // seconds after the recorded time; -1000: nothing is recorded
    bool signedIn;
    bool adopted;
  } const cases[] = {{0, false, true}, {60, false, true}, {-60, false, false}, {5, true, false}, {-1000, false, false}};
  for (const auto& found : cases) {
    SCOPED_TRACE(testing::Message() << found.createdAfter << found.signedIn);
    PrepareComputer();
    const std::wstring sid = sim::AddUser(L"NorvaneKiosk", L"before", 1);
    sim::User user = *sim::FindUser(sid);
    user.lastLogon = found.signedIn ? user.created : 0;
    sim::ChangeUser(user);
    const std::uint64_t recorded =
        user.created - static_cast<std::uint64_t>(std::int64_t{found.createdAfter} * 10'000'000);
    if (found.createdAfter != -1000) {
      test::SetRaw(state::kStateKey, L"AccountCreating", REG_QWORD, &recorded, sizeof(recorded));
    }
    clock_.RunFor(30'000);
    if (found.createdAfter != -1000) {
      sim::FailAccountLookups(1722, 3);  // whose it is cannot be told now
      EXPECT_EQ(Provision(), "account_lookup_failed");
      sim::FailAccountLookups(0);
    }
    for (const wchar_t* unreadable : {L"AccountSid", L"AccountCreating"}) {
      const sim::FailingReads failing(unreadable, ERROR_NO_SYSTEM_RESOURCES);
      EXPECT_EQ(Provision(), "account_lookup_failed");
    }
    EXPECT_EQ(Provision(), found.adopted ? "" : "account_exists");
    EXPECT_EQ(sim::AccountPassword(L"NorvaneKiosk") == L"before", !found.adopted);
    if (found.adopted) {
      test::ExpectProvisioned();
      EXPECT_EQ(Sid(), sid);
    }
  }
}

TEST_F(ProvisioningTest, AVanishedAccountIsReplacedAndItsProfileGoesAtOnceOrLater) {
  for (const bool busy : {false, true}) {
    PrepareComputer();
    EXPECT_EQ(Provision(), "");
    const std::wstring old = Sid();
    const std::string folder = sim::Narrow(sim::ProfileFolder(old));
    sim::RemoveUser(L"NorvaneKiosk");
    sim::profilesBusy.Set(busy ? INFINITE : 3);
    const sim::FaultPass pass;
    EXPECT_EQ(Provision(), "");
    EXPECT_EQ(CountLogged("WARN the recorded kiosk account is gone; creating a new one"), busy ? 2 : 1);
    test::ExpectProvisioned();
    EXPECT_NE(Sid(), old);
    EXPECT_EQ(sim::ProfileFolder(old).empty(), !busy);
    EXPECT_EQ(CountLogged("WARN the profile of an earlier kiosk account is left for later: " + folder), busy ? 1 : 0);
    EXPECT_EQ(pass.Flushed(L"StaleProfileSids"), busy);
    std::string order;  // of the changes to these two
    for (const sim::ChangeCall& call : pass.Calls()) {
      order += call.object.ends_with(L"\\StaleProfileSids") ? "noted " : "";
      order += call.function == "RegDeleteKeyValueW" && call.object.ends_with(L"\\AccountSid") ? "dropped " : "";
    }
    EXPECT_EQ(order, busy ? "noted dropped " : "dropped ");
  }
}

// A session of an account that is gone is signed out, and nobody signs the new one in before Windows restarts.
TEST_F(ProvisioningTest, AnAccountThatVanishedWhileItWasSignedInIsBackOnceItIsSetUpAndNobodyIsThere) {
  EXPECT_EQ(Provision(), "");
  sim::AddUser(L"anna");
  sim::SignIn(L"NorvaneKiosk");
  sim::RemoveUser(L"NorvaneKiosk");
  {
    const sim::FaultPass pass("LsaStorePrivateData(", ERROR_ACCESS_DENIED);
    EXPECT_EQ(Provision(), "lsa_failed");
  }
  clock_.RunFor(600'000);
  EXPECT_FALSE(sim::PendingShutdown()) << "into a sign-in that cannot work";
  const DWORD anna = sim::SignIn(L"anna");
  EXPECT_EQ(Provision(), "");
  EXPECT_EQ(test::LogTexts().back(), "INFO the kiosk account was made anew: restarting into kiosk mode in 300 s");
  clock_.RunFor(3'600'000);
  EXPECT_FALSE(sim::PendingShutdown()) << "somebody may have unsaved work";
  EXPECT_EQ(CountLogged("INFO the kiosk account was made anew: no restart while somebody is signed in"), 1);
  sim::SignOut(anna);
  clock_.RunFor(301'000);
  EXPECT_TRUE(sim::PendingShutdown());
  EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";

  sim::EndAllSessions();
  sim::RemoveUser(L"NorvaneKiosk");
  sim::sessionListError.Set(1722);
  EXPECT_EQ(Provision(), "");
  EXPECT_TRUE(KioskRestartPending()) << "there may have been a session";
}

TEST_F(ProvisioningTest, NoProfileIsForgottenWhateverFailsWhileItsRecordIsDropped) {
  std::wstring old;
  const auto vanish = [&old] {
    PrepareComputer();
    EXPECT_EQ(Provision(), "");
    old = Sid();
    sim::RemoveUser(L"NorvaneKiosk");
    sim::profilesBusy.Set(INFINITE);
  };
  vanish();
  int first = 0;
  {
    const sim::FaultPass pass;
    EXPECT_EQ(Provision(), "");
    while (!pass.Calls().at(static_cast<std::size_t>(first++)).object.ends_with(L"\\StaleProfileSids")) {
    }
  }
  for (int point = first; point < first + 5; ++point) {  // the note, its flush, the record, and the next account's note
    vanish();
    {
      const sim::FaultPass pass(sim::FaultKind::kFail, point);
      Provision();
    }
    EXPECT_EQ(Provision(), "");
    const auto noted = state::ReadState(state::kStaleProfileSids);
    ASSERT_TRUE(noted && noted->type == REG_MULTI_SZ) << point;
    EXPECT_EQ(
        std::wstring(reinterpret_cast<const wchar_t*>(noted->bytes.data()), noted->bytes.size() / sizeof(wchar_t)),
        old + std::wstring(2, L'\0'));
  }
}

TEST_F(ProvisioningTest, AProfileWithoutAUsableRegistryIsMadeAnewUnlessItMayBeInUse) {
  constexpr char kAnew[] = "WARN the kiosk profile has no usable registry; making it anew";
  struct {
    const char* what;
    bool healed;
    void (*damage)(const std::wstring& folder);
    DWORD loadError = 0;
  } const cases[] = {
      {"no file", true, [](const std::wstring& folder) { DeleteFileW((folder + L"\\NTUSER.DAT").c_str()); }},
      {"no folder", true, [](const std::wstring& folder) { test::RemoveTree(folder); }},
      {"no hive", true, [](const std::wstring& folder) { test::WriteWholeFile(folder + L"\\NTUSER.DAT", "junk"); }},
      {"bad database", true, nullptr, ERROR_BADDB},
      {"corrupt", true, nullptr, ERROR_REGISTRY_CORRUPT},
      {"refused", false, nullptr, ERROR_ACCESS_DENIED},
      {"somebody has it open", false, nullptr, ERROR_SHARING_VIOLATION},
      {"the kiosk has a session", false,
       [](const std::wstring& folder) {
         DeleteFileW((folder + L"\\NTUSER.DAT").c_str());
         sim::SetSession(3, L"NorvaneKiosk", sim::ComputerName());
       }},
      {"nobody tells", false,
       [](const std::wstring& folder) {
         DeleteFileW((folder + L"\\NTUSER.DAT").c_str());
         sim::sessionListError.Set(1722);
       }},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    PrepareComputer();
    EXPECT_EQ(Provision(), "");
    const std::wstring folder = sim::ProfileFolder(Sid());
    test::WriteWholeFile(folder + L"\\mine.txt", "x");
    if (each.damage != nullptr) {
      each.damage(folder);
    }
    const int logged = CountLogged(kAnew);
    {
      std::optional<sim::FaultPass> fault;
      if (each.loadError != 0) {
        fault.emplace("RegLoadKeyW(", each.loadError);
      }
      EXPECT_EQ(Provision(), each.healed ? "" : "hive_failed");
    }
    EXPECT_EQ(CountLogged(kAnew), logged + (each.healed ? 1 : 0));
    EXPECT_EQ(test::Exists(folder + L"\\mine.txt"), !each.healed);
    EXPECT_EQ(test::Exists(folder + L"\\NTUSER.DAT"), each.healed || each.loadError != 0)
        << "RegLoadKeyW makes a file that is missing";
    if (each.healed) {
      test::ExpectProvisioned();
      EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";
    }
  }
}

TEST_F(ProvisioningTest, GroupsAreFoundInEveryLanguage) {
  sim::germanGroups.Set(1);
  EXPECT_EQ(Provision(), "");
  const wchar_t* const groups[] = {test::kAdministrators, L"S-1-5-32-547", L"S-1-5-32-555",
                                   L"S-1-5-32-551",       L"S-1-5-32-556", L"S-1-5-32-578"};
  const std::wstring other = sim::AddUser(L"Other");
  for (const wchar_t* group : groups) {
    sim::AddToGroup(group, Sid());
    sim::AddToGroup(group, other);
  }
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 3);
    TrimPrivilegedGroups();
    EXPECT_EQ(pass.Count(), 6);
  }
  for (const wchar_t* group : groups) {
    EXPECT_EQ(sim::GroupMembers(group).size(), group == groups[2] ? 2U : 1U);
  }
  const std::vector<std::string> texts = test::LogTexts();
  EXPECT_EQ(std::vector<std::string>(texts.end() - 6, texts.end()),
            (std::vector<std::string>{"WARN removed NorvaneKiosk from Administratoren",
                                      "WARN removed NorvaneKiosk from Hauptbenutzer",
                                      "ERROR cannot check Remotedesktopbenutzer membership (5)",
                                      "WARN removed NorvaneKiosk from Sicherungs-Operatoren",
                                      "WARN removed NorvaneKiosk from Netzwerkkonfigurations-Operatoren",
                                      "WARN removed NorvaneKiosk from Hyper-V-Administratoren"}));
}

TEST_F(ProvisioningTest, OnlyForTheEnrolmentThatAskedForItAndOnlyWhenNeeded) {
  ASSERT_TRUE(enrolment::StoreDeviceToken("new"));
  EXPECT_EQ(ProvisionKioskAccount("old"), kEnrolmentOver);
  EXPECT_TRUE(sim::UserNames().empty());
  EXPECT_EQ(ProvisionIfNeeded("new"), "");
  test::ExpectProvisioned();
  const std::wstring password = sim::AccountPassword(L"NorvaneKiosk");
  EXPECT_EQ(ProvisionIfNeeded("new"), "");
  sim::FailAccountLookups(1722);
  EXPECT_EQ(ProvisionIfNeeded("new"), "");
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
  sim::FailAccountLookups(0);
  for (const wchar_t* unreadable : {L"Provisioned", L"AccountSid"}) {
    const sim::FailingReads failing(unreadable, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(ProvisionIfNeeded("new"), "");
  }
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned));
  EXPECT_EQ(sim::AccountPassword(L"NorvaneKiosk"), password) << "set up again without need";
}

TEST_F(ProvisioningTest, PoliciesAreAppliedAgainOnlyWhileTheUserIsSignedIn) {
  EXPECT_EQ(Provision(), "");
  ApplyKioskPolicies();
  ASSERT_EQ(sim::LoadHive(Sid(), sim::ProfileFolder(Sid()) + L"\\NTUSER.DAT"), DWORD{ERROR_SUCCESS});
  RegDeleteKeyValueW(HKEY_USERS, (Sid() + L"\\Control Panel\\Colors").c_str(), L"Background");
  for (const int writes : {1, 0}) {
    const sim::FaultPass pass;
    ApplyKioskPolicies();
    EXPECT_EQ(pass.Count(), writes);
  }
}

}  // namespace
}  // namespace kiosk::account
