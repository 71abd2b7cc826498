// Computers that had a life of their own before they became kiosks: what is respected, and that they get it back.
#include "account/provisioning.h"
#include "account/teardown.h"
#include "sim/computer.h"
#include "sim/fault_driver.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "state/made_keys.h"
#include "tests/support/terminal.h"

namespace kiosk::account {
namespace {

using test::SetString;

constexpr wchar_t kPasswordLessParent[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PasswordLess";
constexpr char kInUse[] = "autologon_in_use";

struct Life {
  const char* what;
  void (*before)() = nullptr;   // what the owner did before enrolment
  const char* answer = "";      // of provisioning
  void (*halfway)() = nullptr;  // before provisioning, and no life that is given back
  void (*asKiosk)() = nullptr;  // after provisioning
  std::set<std::string> lost = {};
};

void NameUser(const wchar_t* user, const wchar_t* on, DWORD type = REG_SZ) {
  SetString(kWinlogonKey, L"DefaultUserName", user);
  test::SetRaw(kWinlogonKey, L"AutoAdminLogon", type, on, type == REG_DWORD ? 4 : state::StringBytes(on));
}

void SetFastUserSwitching(DWORD type) { test::SetRaw(kSystemPoliciesKey, L"HideFastUserSwitching", type, L"0", 4); }

std::wstring KioskSid() { return test::Kiosk().sid; }

const Life kLives[] = {
    {"every setting of an unusual type"},
    {"no setting at all",
     [] {
       for (const wchar_t* name :
            {L"AutoAdminLogon", L"DefaultUserName", L"DefaultDomainName", L"DefaultPassword", L"AutoLogonCount"}) {
         RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, name);
       }
       RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kPasswordLessKey, L"DevicePasswordLessBuildVersion");
       RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSystemPoliciesKey, L"EnableFirstLogonAnimation");
     }},
    {"keys that nobody made yet",
     [] {
       RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPasswordLessParent);
       RegDeleteKeyW(HKEY_LOCAL_MACHINE, kPasswordLessParent);
       RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSystemPoliciesKey);
       RegDeleteKeyW(HKEY_LOCAL_MACHINE, kSystemPoliciesKey);
     }},
    {"another user signs in, password in the registry", [] { NameUser(L"anna", L"1"); }, kInUse},
    {"the same, password as a secret",
     [] {
       NameUser(L"anna", L"1");
       sim::SetSecret(L"DefaultPassword", L"secret");
     },
     kInUse},
    {"the same, as a number", [] { NameUser(L"anna", L"\x1", REG_DWORD); }, kInUse},
    {"the same, expanded", [] { NameUser(L"anna", L"1", REG_EXPAND_SZ); }, kInUse},
    {"not quite switched on", [] { NameUser(L"anna", L"01"); }},
    {"nor so", [] { NameUser(L"anna", L"\x2", REG_DWORD); }},
    {"switched on for nobody", [] { NameUser(L"", L"1"); }},
    {"a secret of a sign-in that is switched off",
     [] { sim::SetSecret(L"DefaultPassword", L"secret"); },
     "",
     nullptr,
     nullptr,
     {"secret defaultpassword"}},
    {"somebody bears the name",
     [] {
       sim::AddToGroup(test::kAdministrators, sim::AddUser(L"norvanekiosk", L"theirs"));
       sim::MakeProfile(KioskSid(), L"norvanekiosk");
     },
     "account_exists"},
    {"somebody bears the name and signs in", [] { sim::AddUser(L"norvanekiosk"), NameUser(L"NORVANEKIOSK", L"1"); },
     "account_exists"},
    {"an administrator's policy", [] { SetFastUserSwitching(REG_DWORD); }, "", nullptr,
     [] { EXPECT_FALSE(test::HasValue(state::kStateKey, L"OwnsHideFastUserSwitching")); }},
    {"the same of another type", [] { SetFastUserSwitching(REG_SZ); }},
    {"a removal that was never finished", nullptr, "",
     [] {
       ASSERT_EQ(ProvisionKioskAccount({}), "");
       sim::profilesBusy.Set(INFINITE);
       RemoveKioskMode(false, "because");
       sim::profilesBusy.Set(0);
       EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending));
       test::Enrol("tok-2", false);
     }},
    {"a hive left loaded", nullptr, "",
     [] {
       ASSERT_EQ(ProvisionKioskAccount({}), "");
       ASSERT_EQ(sim::LoadHive(L"NorvaneKioskProvision", sim::ProfileFolder(KioskSid()) + L"\\NTUSER.DAT"), DWORD{0});
     }},
    {"a hive left loaded at the end", nullptr, "", nullptr,
     [] {
       ASSERT_EQ(sim::LoadHive(L"NorvaneKioskProvision", sim::ProfileFolder(KioskSid()) + L"\\NTUSER.DAT"), DWORD{0});
     }},
};

TEST(Owner, EveryComputerIsGivenBackWithTheLifeThatItHad) {
  const sim::VirtualClock clock(test::kMorning);
  for (const Life& life : kLives) {
    SCOPED_TRACE(life.what);
    test::ResetComputer();
    test::OwnComputer();
    if (life.before != nullptr) {
      life.before();
    }
    const std::string before = sim::DumpMachine();
    test::Enrol("tok-1", false);
    if (life.halfway != nullptr) {
      life.halfway();
    }
    EXPECT_EQ(ProvisionKioskAccount({}), life.answer);
    if (*life.answer != '\0') {
      EXPECT_EQ(sim::DumpMachine(), before);
      EXPECT_EQ(test::StateNames(), (std::set<std::wstring>{L"DeviceToken", L"LastError", L"ToldTroubles"}));
    } else {
      test::ExpectProvisioned();
    }
    if (life.asKiosk != nullptr) {
      life.asKiosk();
    } else if (*life.answer == '\0') {
      EXPECT_EQ(sim::RestartComputer(), 1U) << "the kiosk does not sign in by itself";
      sim::SignOut(sim::SignIn(L"anna"));  // whose name Windows notes
    }
    RemoveKioskMode(false, "because");
    EXPECT_EQ(test::Differences(before), life.lost);
  }
  sim::SignOut(sim::SignIn(L"anna"));
  test::Enrol("tok-2");  // once more, with her name in the settings
  test::ExpectProvisioned();
  EXPECT_EQ(test::CountLogged("WARN an auto sign-in secret from before enrolment was replaced and cannot be put back"),
            1);
}

// Of the keys that were made for a value, those in which there is nothing else go, however often that is cut short.
TEST(OwnerFaults, KeysThatWereMadeGoWithTheirValue) {
  const std::wstring used = kPasswordLessParent + std::wstring(L"\\Used");
  const std::wstring deepest = std::wstring(kPasswordLessKey) + L"\\A\\B";
  const auto prepare = [&] {
    test::ResetComputer();
    test::Enrol("", false);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPasswordLessParent);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kPasswordLessParent);
    EXPECT_TRUE(state::NoteMissingKeys(state::kMadeSignInKeys, {used.c_str(), deepest.c_str()}));
    SetString(used.c_str(), L"Name", L"somebody else's");
    SetString(deepest.c_str(), L"Name", L"");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, deepest.c_str(), L"Name");
  };
  const auto deleteThem = [] { state::DeleteMadeKeys(state::kMadeSignInKeys); };
  const auto later = [&] {
    deleteThem();
    EXPECT_EQ(test::StateNames(), std::set<std::wstring>{});
    EXPECT_EQ(test::HasKey(kPasswordLessKey), sim::FailedCall().starts_with("RegDeleteKeyExW"));
    EXPECT_TRUE(test::HasValue(used.c_str(), L"Name"));
  };
  sim::RunFaultScenario({.name = L"made keys", .prepare = prepare, .run = deleteThem, .later = later, .points = 4});
}

}  // namespace
}  // namespace kiosk::account
