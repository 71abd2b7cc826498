// The end of kiosk mode, where tests/owner_test.cpp (what is given back) and tests/kiosk_faults_test.cpp (whatever
// fails or is cut short) do not show it.
#include "account/teardown.h"

#include "account/account_lock.h"
#include "account/kiosk_profile.h"
#include "account/kiosk_restart.h"
#include "account/unlock_token.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "enrolment/pairing_code.h"
#include "proxy/proxy.h"
#include "sim/buffers.h"
#include "sim/computer.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "tests/support/power.h"
#include "updates/restart_policy.h"
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

class TeardownTest : public test::VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  }
  // An account as provisioning would have left it, without the rest.
  static std::wstring RecordAccount() {
    std::wstring sid = sim::AddUser(L"NorvaneKiosk");
    SetString(state::kStateKey, L"AccountSid", sid);
    EXPECT_EQ(sim::MakeProfile(sid, L"NorvaneKiosk"), DWORD{ERROR_SUCCESS});
    return sid;
  }
};

TEST_F(TeardownTest, GivesTheComputerBackAsItWas) {
  test::OwnComputer();
  const std::string before = sim::DumpMachine();
  test::Enrol();
  updates::ApplyWuRestartPolicy({true, 120, 300, 127});
  test::Ask(proxy::ProxySet, R"({"mode":"manual","server":"p.test:1"})");
  // Every value that there is, so that a new one that nobody deletes is found here.
  for (const state::StateValue* value : state::kStateValues) {
    if (value->type != state::kTypeOfCopied && !test::HasValue(state::kStateKey, value->name)) {
      test::SetRaw(state::kStateKey, value->name, value->type, L"1\0\0", value->type == REG_QWORD ? 8 : 4);
    }
  }
  // But for those that have tests of their own.
  state::DeleteStateValues({state::kTeardownSuperseded, state::kStaleProfileSids, state::kPriorNetwork});
  const DWORD session = sim::SignIn(L"NorvaneKiosk");
  const text::Secret unlock = NewUnlockToken(session);
  ScheduleKioskRestart();
  enrolment::SetPendingPairingCode("ABCD1234");
  {
    const sim::FaultPass pass;
    RemoveKioskMode(false, "because");
    const std::vector<std::string> calls = pass.Texts();
    const auto deleted = [&](const std::string& value) {
      return std::find(calls.begin(), calls.end(),
                       "RegDeleteKeyValueW(HKLM\\SOFTWARE\\Norvane\\Tessaly\\Kiosk\\" + value + ")");
    };
    EXPECT_TRUE(calls[0].starts_with("RegSetValueExW(") && calls[0].ends_with("\\TeardownPending)")) << calls[0];
    EXPECT_TRUE(calls[1].starts_with("RegFlushKey("));
    for (const char* value :
         {"Provisioned", "Maintenance", "MaintenanceAt", "LastError", "UnknownSince", "SignIn", "TerminalName"}) {
      EXPECT_LT(deleted(value), deleted("DeviceToken")) << value;
    }
    EXPECT_NE(deleted("DeviceToken"), calls.end());
    EXPECT_TRUE(pass.Flushed(L"DeviceToken") && pass.Flushed(L"TeardownPending"));
  }
  EXPECT_EQ(sim::DumpMachine(), before);
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"MaintenanceFailures", L"MaintenanceLockedUntil", L"ToldTroubles"}))
      << "troubles of the computer outlast the kiosk";
  EXPECT_EQ(sim::EventLogEntries().back(), "NorvaneKiosk warning 203 [because]");
  EXPECT_FALSE(CheckUnlockToken(unlock.Get(), session));
  EXPECT_FALSE(KioskRestartPending());
  EXPECT_EQ(enrolment::PendingPairingCode(), "");
  EXPECT_EQ(sim::openBuffers, 0);
  const std::vector<std::string> texts = test::LogTexts();
  EXPECT_EQ(std::vector<std::string>(texts.end() - 6, texts.end()),
            (std::vector<std::string>{
                "WARN removing kiosk mode: because", "INFO auto sign-in restored to what it was before enrolment",
                "INFO os updates: Windows Update restart settings are back as they were",
                "INFO proxy: the computer's own default proxy is back",
                "INFO logged off kiosk session " + std::to_string(session), "INFO deleted NorvaneKiosk"}));
}

// Windows is short of memory, for a moment or from then on, whenever that begins. What it does not give then is not
// taken for what is not there.
TEST_F(TeardownTest, WhicheverReadFailsNothingIsForgotten) {
  const struct {
    const char* what;
    int failures;
    void (*prepare)();
    void (*run)();
    bool alone = false;  // nobody comes after it
  } cases[] = {
      {"an uninstall", 2, [] {}, [] { RemoveKioskMode(true, "uninstalled"); }, true},
      {"a removal that was interrupted", -1, [] { SetDword(state::kStateKey, L"TeardownPending", 1); },
       FinishPendingRemoval},
      {"the account alone is left", 1,
       [] {
         sim::profilesBusy.Set(INFINITE);
         RemoveKioskMode(false, "because");
         sim::profilesBusy.Set(0);
       },
       FinishPendingRemoval},
  };
  for (const auto& each : cases) {
    bool failed = true;
    // One of the look at all values is enough, and then each one after it.
    for (int spared = 0; failed; spared = std::max(spared + 1, static_cast<int>(std::size(state::kStateValues)))) {
      SCOPED_TRACE(testing::Message() << each.what << ", after " << spared << " reads");
      SetUp();
      test::OwnComputer();
      const std::string before = sim::DumpMachine();
      test::Enrol();
      updates::ApplyWuRestartPolicy({true, 120, 300, 127});
      test::Ask(proxy::ProxySet, R"({"mode":"manual","server":"p.test:1"})");
      power::Receive(power::Policy(15, 0));
      power::Apply();
      sim::SignOut(sim::SignIn(L"anna"));  // whose name Windows notes
      each.prepare();
      {
        const sim::FailingReads failing(state::kStateKey, ERROR_NO_SYSTEM_RESOURCES, each.failures, spared);
        each.run();
        failed = failing.Happened();
      }
      if (!each.alone) {
        FinishPendingRemoval();
      }
      EXPECT_EQ(sim::DumpMachine(), before);
      EXPECT_EQ(StateNames(), std::set<std::wstring>{});
    }
  }
}

TEST_F(TeardownTest, WhatBecomesOfTheAccount) {
  constexpr char kDeleted[] = "INFO deleted NorvaneKiosk";
  struct {
    const char* what;
    bool deleted;
    bool userGone, profileGone;
    std::string lastLine;
    void (*prepare)(const std::wstring& sid) = nullptr;
    int failing = 0;  // 1: delete the profile, 2: delete the user
    DWORD error = 0;
  } const cases[] = {
      {"no profile (2)", true, true, true, kDeleted, [](const std::wstring& sid) { sim::RemoveProfile(sid); }},
      {"no profile (3)", true, true, false, kDeleted, nullptr, 1, ERROR_PATH_NOT_FOUND},
      {"profile busy nine times", true, true, true, kDeleted, [](const std::wstring&) { sim::profilesBusy.Set(9); }},
      {"profile busy ten times", false, true, false, kDeleted, [](const std::wstring&) { sim::profilesBusy.Set(10); }},
      {"user gone meanwhile", true, false, true, kDeleted, nullptr, 2, NERR_UserNotFound},
      {"user that stays", false, false, true, "ERROR cannot delete NorvaneKiosk (5)", nullptr, 2, ERROR_ACCESS_DENIED},
      {"user gone before", true, true, true, "", [](const std::wstring&) { sim::RemoveUser(L"NorvaneKiosk"); }},
      {"user gone while it is signed in", true, true, true, "INFO logged off kiosk session 1",
       [](const std::wstring&) {
         sim::SignIn(L"NorvaneKiosk");
         sim::RemoveUser(L"NorvaneKiosk");
       }},
      {"somebody else's", true, false, true, "WARN the local NorvaneKiosk is not the recorded account SID; left alone",
       [](const std::wstring&) {
         sim::RemoveUser(L"NorvaneKiosk");
         sim::AddUser(L"norvanekiosk");
       }},
  };
  for (auto each : cases) {
    SCOPED_TRACE(each.what);
    const int failures = test::CountLogged("ERROR cannot delete the kiosk profile (32)");
    const std::size_t logged = test::LogTexts().size();
    SetUp();
    const std::wstring sid = RecordAccount();
    if (each.prepare != nullptr) {
      each.prepare(sid);
    }
    SetDword(state::kStateKey, L"TeardownPending", 1);
    {
      const sim::FaultPass pass(each.failing == 0 ? sim::FaultKind::kCount : sim::FaultKind::kFail, each.failing,
                                each.error);
      FinishPendingRemoval();
    }
    EXPECT_EQ(!test::HasValue(state::kStateKey, L"TeardownPending"), each.deleted);
    EXPECT_EQ(!sim::FindUser(L"NorvaneKiosk"), each.userGone);
    EXPECT_EQ(sim::ProfileFolder(sid).empty(), each.profileGone);
    if (const std::size_t at = each.lastLine.find("SID"); at != std::string::npos) {
      each.lastLine.replace(at, 3, sim::Narrow(sid));
    }
    std::vector<std::string> texts = test::LogTexts();
    if (each.deleted) {
      EXPECT_EQ(texts.back(), "INFO the pending removal of NorvaneKiosk finished");
      texts.pop_back();
    }
    EXPECT_EQ(texts.size() == logged ? "" : texts.back(), each.lastLine);
    EXPECT_EQ(test::CountLogged("ERROR cannot delete the kiosk profile (32)") - failures,
              each.what == std::string("profile busy ten times") ? 1 : 0);
  }
  EXPECT_EQ(clock_.Elapsed(), 18'000U);  // nine waits between ten attempts, twice
}

TEST_F(TeardownTest, SignOutsArePolledAndThenLeftForLater) {
  struct {
    DWORD stays;
    std::uint64_t until;
    bool removed;
    DWORD listError = 0;
  } const cases[] = {{3'000, 3'000, true}, {INFINITE, 15'000, false}, {INFINITE, 15'000, false, 1722}};
  for (const auto& each : cases) {
    SetUp();
    RecordAccount();
    sim::MakeStubborn(sim::SignIn(L"NorvaneKiosk"), each.stays);
    sim::sessionListError.Set(each.listError);
    const std::uint64_t start = clock_.Elapsed();
    RemoveKioskMode(false, "because");
    EXPECT_EQ(test::CountLogged("ERROR cannot list the sessions of this computer (1722)"), each.listError != 0 ? 1 : 0);
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

TEST_F(TeardownTest, APendingRemovalIsRetriedAlsoByAnUninstall) {
  for (const bool uninstall : {false, true}) {
    test::Enrol();
    const int later = test::CountLogged(kLater);
    sim::profilesBusy.Set(INFINITE);
    RemoveKioskMode(uninstall, "because");
    EXPECT_EQ(test::CountLogged(kLater), later + 1);
    FinishPendingRemoval();
    EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"AccountSid", L"TeardownPending"}));
    sim::profilesBusy.Set(0);
    if (!uninstall) {
      FinishPendingRemoval();
      EXPECT_EQ(StateNames(), std::set<std::wstring>{});
      EXPECT_EQ(test::LogTexts().back(), "INFO the pending removal of NorvaneKiosk finished");
      const sim::FaultPass pass;
      FinishPendingRemoval();
      EXPECT_EQ(pass.Count(), 0);
    }
  }
  win32::RegistryKey key;
  ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, (std::wstring(state::kStateKey) + L"\\Sub").c_str(), key.Put()), 0);
  key.Reset();
  RemoveKioskMode(true, "uninstalled");
  EXPECT_EQ(sim::EventLogNumbers(), "201 203 201 203");
  EXPECT_TRUE(!test::HasKey(state::kStateKey) && test::HasKey(test::kUpdateKey));
}

TEST_F(TeardownTest, AMarkBesideATokenIsAnInterruptedOne) {
  test::Enrol();
  SetDword(state::kStateKey, L"TeardownPending", 1);
  SetDword(state::kStateKey, L"TeardownSuperseded", 1);
  FinishPendingRemoval();  // the mark is older than the token
  EXPECT_TRUE(enrolment::StillEnrolled("tok-1"));
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
  EXPECT_EQ(sim::EventLogNumbers(), "201 203 201") << "one that was interrupted was told of when it began";
}

TEST_F(TeardownTest, ProfilesOfEarlierAccountsAreTriedAtStartEachHourAndAtTheEnd) {
  // Of an account that is gone, and with a hive in the hands of another program.
  const auto leave = [] {
    std::wstring sid = RecordAccount();
    EXPECT_EQ(sim::LoadHive(L"Scanner", sim::ProfileFolder(sid) + L"\\NTUSER.DAT"), DWORD{ERROR_SUCCESS});
    sim::RemoveUser(L"NorvaneKiosk");
    return sid;
  };
  const auto tries = [](auto action) {
    const sim::FaultPass pass;
    action();
    return std::count_if(pass.Calls().begin(), pass.Calls().end(),
                         [](const sim::ChangeCall& call) { return call.function == "DeleteProfileW"; });
  };
  std::wstring sid = leave();
  const std::string folder = sim::Narrow(sim::ProfileFolder(sid));
  const std::wstring noted = sid + std::wstring(2, L'\0');
  test::SetRaw(state::kStateKey, L"StaleProfileSids", REG_MULTI_SZ, noted.c_str(), noted.size() * sizeof(wchar_t));
  FinishPendingRemoval();
  EXPECT_FALSE(sim::ProfileFolder(sid).empty()) << "it is the recorded account's";
  ASSERT_TRUE(state::DeleteStateValue(state::kAccountSid));
  EXPECT_EQ(tries(FinishPendingRemoval), 0);
  {
    const sim::FailingReads failing(L"StaleProfileSids", ERROR_NO_SYSTEM_RESOURCES, 1);
    DeleteStaleProfiles(false);
  }
  clock_.RunFor(3'600'000);
  EXPECT_EQ(tries(FinishPendingRemoval), 1);
  EXPECT_EQ(tries(FinishPendingRemoval), 0);
  EXPECT_EQ(tries([] { RemoveKioskMode(false, "because"); }), 1);
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{"WARN removing kiosk mode: because"});
  sim::UnloadHive(L"Scanner");
  clock_.RunFor(3'600'000);
  FinishPendingRemoval();
  EXPECT_TRUE(sim::ProfileFolder(sid).empty());
  EXPECT_EQ(StateNames(), std::set<std::wstring>{});
  EXPECT_EQ(test::LogTexts().back(), "INFO the profile of an earlier kiosk account is deleted: " + folder);

  sid = leave();
  ASSERT_TRUE(state::DeleteStateValue(state::kAccountSid) && NoteStaleProfile(sid) && NoteStaleProfile(sid));
  EXPECT_EQ(tries([] { RemoveKioskMode(true, "uninstalled"); }), 1);
  EXPECT_EQ(test::LogTexts().back(), "WARN the profile of an earlier kiosk account stays behind (32): " + folder);
  EXPECT_FALSE(test::HasKey(state::kStateKey));
}

// A provisioning that was cut short left its note: an account that is older is somebody else's, and one that nobody can
// look at is not.
TEST_F(TeardownTest, ANoteOfACreationMakesNoOlderAccountOurs) {
  ASSERT_TRUE(state::WriteStateQword(state::kAccountCreating, clock_.SystemTime()));
  sim::AddUser(L"NorvaneKiosk");
  sim::FailAccountLookups(1722, 3);
  RemoveKioskMode(false, "because");
  EXPECT_EQ(StateNames(), (std::set<std::wstring>{L"AccountCreating", L"TeardownPending"}));
  sim::FailAccountLookups(0);
  FinishPendingRemoval();
  EXPECT_FALSE(sim::FindUser(L"NorvaneKiosk"));

  sim::AddUser(L"NorvaneKiosk");
  clock_.RunFor(5'000);
  ASSERT_TRUE(state::WriteStateQword(state::kAccountCreating, clock_.SystemTime()));
  RemoveKioskMode(false, "because");
  EXPECT_TRUE(sim::FindUser(L"NorvaneKiosk"));
  EXPECT_EQ(StateNames(), std::set<std::wstring>{});
}

}  // namespace
}  // namespace kiosk::account
