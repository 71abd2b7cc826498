// The end of kiosk mode: what is given back, what stays for later, and that no moment is a bad one to be cut short.
#include "account/teardown.h"

#include "account/account_lock.h"
#include "account/enrolment.h"
#include "account/kiosk_account.h"
#include "account/kiosk_restart.h"
#include "account/provisioning.h"
#include "account/unlock_token.h"
#include "account/winlogon.h"
#include "portal/device_token.h"
#include "portal/pairing_code.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/computer.h"
#include "sim/faults.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "tests/support/owned_computer.h"
#include "win32/stop.h"

#include <lm.h>

#include <algorithm>
#include <set>

namespace kiosk::account {
namespace {

using test::SetDword;
using test::SetString;
using test::StateNames;

constexpr char kLater[] = "WARN the kiosk account could not be removed yet; retrying at every start and check-in";

class TeardownTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  }
  // An account as provisioning would have left it, without the rest.
  std::wstring RecordAccount(bool profile = true) {
    std::wstring sid = sim::AddUser(L"NorvaneKiosk");
    SetString(state::kStateKey, L"AccountSid", sid);
    EXPECT_EQ(profile ? sim::MakeProfile(sid, L"NorvaneKiosk") : ERROR_SUCCESS, DWORD{ERROR_SUCCESS});
    return sid;
  }
  static bool Delete(const std::wstring& sid) {
    const win32::LockGuard guard(AccountLock());
    return DeleteKioskAccount(sid);
  }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
};

TEST_F(TeardownTest, GivesTheComputerBackAsItWas) {
  test::OwnComputer();
  const std::string before = sim::DumpMachine();
  test::Enrol();
  for (const wchar_t* name : {L"TerminalName", L"SignIn", L"LastError"}) {
    SetString(state::kStateKey, name, L"x");
  }
  for (const wchar_t* name :
       {L"MaintenanceFailures", L"MaintenanceLockedUntil", L"Maintenance", L"MaintenanceAt", L"UnknownSince"}) {
    SetDword(state::kStateKey, name, 1);
  }
  ASSERT_NE(sim::DumpMachine(), before);
  const DWORD session = sim::SignIn(L"NorvaneKiosk");
  const text::Secret unlock = NewUnlockToken(session);
  ScheduleKioskRestart();
  portal::SetPendingPairingCode("ABCD1234");
  {
    const sim::FaultPass pass;
    RemoveKioskMode(false, "because");
    const auto at = [&pass](const char* function, const wchar_t* value) {
      const auto& calls = pass.Calls();
      const auto found = std::find_if(calls.begin(), calls.end(), [&](const sim::ChangeCall& call) {
        return call.function == function && call.object.ends_with(value);
      });
      EXPECT_NE(found, calls.end()) << function;
      return found - calls.begin();
    };
    EXPECT_EQ(at("RegSetValueExW", L"TeardownPending"), 0);
    EXPECT_EQ(at("RegFlushKey", L""), 1);
    for (const wchar_t* value : {L"Provisioned", L"Maintenance", L"MaintenanceAt", L"LastError", L"UnknownSince",
                                 L"SignIn", L"TerminalName"}) {
      EXPECT_LT(at("RegDeleteKeyValueW", value), at("RegDeleteKeyValueW", L"DeviceToken")) << sim::Narrow(value);
    }
    EXPECT_TRUE(pass.Flushed(L"DeviceToken"));
    EXPECT_TRUE(pass.Flushed(L"TeardownPending"));
  }
  EXPECT_EQ(sim::DumpMachine(), before);
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"MaintenanceFailures", L"MaintenanceLockedUntil"}));
  EXPECT_FALSE(CheckUnlockToken(unlock.Get(), session));
  EXPECT_FALSE(KioskRestartPending());
  EXPECT_EQ(portal::PendingPairingCode(), "");
  EXPECT_EQ(sim::OpenSessionBuffers() + sim::OpenNetBuffers() + sim::OpenLsaObjects(), 0);
  const std::vector<std::string> texts = test::LogTexts();
  EXPECT_EQ(std::vector<std::string>(texts.end() - 4, texts.end()),
            (std::vector<std::string>{
                "WARN removing kiosk mode: because", "INFO auto sign-in restored to what it was before enrolment",
                "INFO logged off kiosk session " + std::to_string(session), "INFO deleted NorvaneKiosk"}));
}

TEST_F(TeardownTest, WhatBecomesOfTheAccount) {
  struct {
    const char* what;
    bool deleted;
    bool userGone, profileGone;
    const char* lastLine;
    void (*prepare)(std::wstring& sid);
    const char* failing;  // a call, and its error
    DWORD error;
  } const cases[] = {
      {"ours", true, true, true, "INFO deleted NorvaneKiosk", nullptr, nullptr, 0},
      {"no profile (2)", true, true, true, "INFO deleted NorvaneKiosk",
       [](std::wstring& sid) { sim::RemoveProfile(sid); }, nullptr, 0},
      {"no profile (3)", true, true, false, "INFO deleted NorvaneKiosk", nullptr, "DeleteProfileW",
       ERROR_PATH_NOT_FOUND},
      {"profile busy nine times", true, true, true, "INFO deleted NorvaneKiosk",
       [](std::wstring&) { sim::KeepProfilesBusy(9); }, nullptr, 0},
      {"profile busy ten times", false, true, false, "INFO deleted NorvaneKiosk",
       [](std::wstring&) { sim::KeepProfilesBusy(10); }, nullptr, 0},
      {"user gone meanwhile", true, false, true, "INFO deleted NorvaneKiosk", nullptr, "NetUserDel", NERR_UserNotFound},
      {"user that stays", false, false, true, "ERROR cannot delete NorvaneKiosk (5)", nullptr, "NetUserDel",
       ERROR_ACCESS_DENIED},
      {"user gone before", true, true, true, nullptr, [](std::wstring&) { sim::RemoveUser(L"NorvaneKiosk"); }, nullptr,
       0},
      {"somebody else's", true, false, true, nullptr,
       [](std::wstring&) {
         sim::RemoveUser(L"NorvaneKiosk");
         sim::AddUser(L"norvanekiosk");
       },
       nullptr, 0},
  };
  int profileFailures = 0;
  for (const auto& each : cases) {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    std::wstring sid = RecordAccount();
    if (each.prepare != nullptr) {
      each.prepare(sid);
    }
    int at = 0;  // the calls of a deletion are: unload a left-over hive, delete the profile, delete the user
    if (each.failing != nullptr) {
      at = each.failing == std::string("DeleteProfileW") ? 2 : 3;
    }
    {
      const sim::FaultPass pass(at == 0 ? sim::FaultKind::kCount : sim::FaultKind::kFail, at, each.error);
      EXPECT_EQ(Delete(sid), each.deleted) << each.what;
      if (at != 0) {
        ASSERT_GE(pass.Count(), at) << each.what;
        EXPECT_EQ(pass.Calls()[static_cast<std::size_t>(at) - 1].function, each.failing);
      }
    }
    EXPECT_EQ(!sim::FindUser(L"NorvaneKiosk"), each.userGone) << each.what;
    EXPECT_EQ(sim::ProfileFolder(sid).empty(), each.profileGone) << each.what;
    const std::vector<std::string> texts = test::LogTexts();
    if (each.lastLine != nullptr) {
      ASSERT_FALSE(texts.empty()) << each.what;
      EXPECT_EQ(texts.back(), each.lastLine) << each.what;
    }
    if (each.what == std::string("somebody else's")) {
      EXPECT_EQ(texts.back(),
                "WARN the local NorvaneKiosk is not the recorded account " + sim::Narrow(sid) + "; left alone");
    }
    profileFailures += each.what == std::string("profile busy ten times") ? 1 : 0;
    EXPECT_EQ(test::CountLogged("ERROR cannot delete the kiosk profile (32)"), profileFailures) << each.what;
  }
  EXPECT_EQ(clock_.Elapsed(), 18'000U);  // nine waits between ten attempts, twice
}

TEST_F(TeardownTest, SignOutsArePolledAndThenLeftForLater) {
  struct {
    DWORD stays;
    std::uint64_t until;
    bool removed;
  } const cases[] = {{3'000, 3'000, true}, {INFINITE, 15'000, false}};
  for (const auto& each : cases) {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    RecordAccount();
    sim::MakeStubborn(sim::SignIn(L"NorvaneKiosk"), each.stays);
    const std::uint64_t start = clock_.Elapsed();
    RemoveKioskMode(false, "because");
    EXPECT_GE(clock_.Elapsed() - start, each.until);
    EXPECT_LE(clock_.Elapsed() - start, each.until + 1'300);
    EXPECT_EQ(!sim::FindUser(L"NorvaneKiosk"), each.removed);
    EXPECT_EQ(state::FlagIsOn(state::kTeardownPending), !each.removed);
  }
  ASSERT_TRUE(win32::CreateStopEvent());
  win32::RequestStop();
  const std::uint64_t start = clock_.Elapsed();
  FinishPendingRemoval();
  EXPECT_EQ(clock_.Elapsed(), start);
  EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending));
}

TEST_F(TeardownTest, PendingRemovalConverges) {
  test::OwnComputer();
  const std::string before = sim::DumpMachine();
  test::Enrol();
  sim::KeepProfilesBusy(INFINITE);
  RemoveKioskMode(false, "because");
  EXPECT_EQ(test::CountLogged(kLater), 1);
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"AccountSid", L"TeardownPending"}));
  FinishPendingRemoval();
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"AccountSid", L"TeardownPending"}));
  sim::KeepProfilesBusy(0);
  FinishPendingRemoval();
  EXPECT_EQ(StateNames(), std::set<std::wstring>{});
  EXPECT_EQ(test::LogTexts().back(), "INFO the pending removal of NorvaneKiosk finished");
  EXPECT_EQ(sim::DumpMachine(), before);
  const sim::FaultPass pass;
  FinishPendingRemoval();
  EXPECT_EQ(pass.Count(), 0);
}

TEST_F(TeardownTest, AMarkBesideATokenIsAnInterruptedOne) {
  test::Enrol();
  SetDword(state::kStateKey, L"TeardownPending", 1);
  SetDword(state::kStateKey, L"TeardownSuperseded", 1);
  FinishPendingRemoval();  // the mark is older than the token
  EXPECT_TRUE(StillEnrolled("tok-1"));
  SetDword(state::kStateKey, L"TeardownSuperseded", 1);  // left over; no teardown of this enrolment is called off by it
  {
    const sim::FaultPass pass;
    RemoveKioskMode(false, "because");
    EXPECT_TRUE(pass.Calls().front().object.ends_with(L"TeardownSuperseded"));
  }
  test::Enrol();
  SetDword(state::kStateKey, L"TeardownPending", 1);
  FinishPendingRemoval();
  EXPECT_EQ(StateNames(), std::set<std::wstring>{});
  EXPECT_EQ(test::CountLogged("WARN removing kiosk mode: an earlier removal was interrupted"), 1);
}

TEST_F(TeardownTest, UninstallDeletesTheStateKeyUnlessSomethingIsPending) {
  test::Enrol();
  sim::KeepProfilesBusy(INFINITE);
  RemoveKioskMode(true, "uninstalled");
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"AccountSid", L"TeardownPending"}));
  sim::KeepProfilesBusy(0);
  win32::RegistryKey below;
  ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, (std::wstring(state::kStateKey) + L"\\Sub").c_str(), below.Put()), 0);
  below.Reset();
  RemoveKioskMode(true, "uninstalled");
  win32::RegistryKey key;
  EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, state::kStateKey, key.Put()), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Tessaly\\Update", key.Put()), ERROR_SUCCESS);
  RemoveKioskMode(true, "uninstalled");  // a computer that never was a kiosk
  EXPECT_EQ(test::LogTexts().back(), "WARN removing kiosk mode: uninstalled");
}

TEST_F(TeardownTest, OnlyTheEnrolmentThatWasRefusedIsRemoved) {
  test::Enrol("tok-2");
  const std::string old = "tok-1";
  const std::set<std::wstring> names = StateNames();
  const sim::FaultPass pass;
  RemoveKioskMode(false, "because", &old);
  EXPECT_EQ(pass.Count(), 0);
  EXPECT_EQ(StateNames(), names);
  EXPECT_TRUE(sim::FindUser(L"NorvaneKiosk"));
}

// A provisioning was cut short between the making of the account and the note of its SID.
TEST_F(TeardownTest, AccountOfACreationThatWasCutShort) {
  for (const bool ours : {true, false}) {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    if (!ours) {
      sim::AddUser(L"NorvaneKiosk");
      clock_.RunFor(5'000);
    }
    ASSERT_TRUE(state::WriteStateQword(state::kAccountCreating, clock_.SystemTime()));
    if (ours) {
      sim::AddUser(L"NorvaneKiosk");
    }
    RemoveKioskMode(false, "because");
    EXPECT_EQ(!sim::FindUser(L"NorvaneKiosk"), ours);
    EXPECT_EQ(StateNames(), std::set<std::wstring>{});
  }
}

}  // namespace
}  // namespace kiosk::account
