// Automatic sign-in, where the whole of provisioning and removal does not show it: tests/owner_test.cpp has the
// computers that get their settings back.
#include "account/auto_logon.h"

#include "account/winlogon.h"
#include "sim/computer.h"
#include "sim/faults.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "tests/support/owned_computer.h"

namespace kiosk::account {
namespace {

class AutoLogonTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    test::OwnComputer();
  }
};

TEST_F(AutoLogonTest, AnotherUsersAutoSignInIsLeftAlone) {
  test::Enrol();
  test::SetString(kWinlogonKey, L"DefaultUserName", L"Łukasz");
  const std::string before = sim::DumpMachine();
  RestoreAutoLogon();
  EXPECT_EQ(sim::DumpMachine(), before);
  EXPECT_EQ(test::StateNames(),
            (std::set<std::wstring>{L"AccountSid", L"DeviceToken", L"OwnsHideFastUserSwitching", L"Provisioned"}));
  EXPECT_EQ(test::LogTexts().back(), "WARN auto sign-in now names 'Łukasz', not NorvaneKiosk; left as it is");
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
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  EXPECT_TRUE(StoreAutoLogonSecret(nullptr, 0)) << "there was none";
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    EXPECT_FALSE(StoreAutoLogonSecret(L"x", 1));
  }
  for (const bool on : {true, false}) {
    const win32::LockGuard guard(AutoLogonLock());
    SetAutoAdminLogon(on);
    state::RawValue value;
    EXPECT_EQ(state::ReadValue(kWinlogonKey, L"AutoAdminLogon", value), ERROR_SUCCESS);
    EXPECT_EQ(value.type, DWORD{REG_SZ});
    EXPECT_EQ(value.bytes, (std::vector<std::uint8_t>{static_cast<std::uint8_t>(on ? '1' : '0'), 0, 0, 0}));
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    SetAutoAdminLogon(on);
  }
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"ERROR LsaStorePrivateData failed (5)", "ERROR cannot set AutoAdminLogon=1",
                                      "ERROR cannot set AutoAdminLogon=0"}));
}

}  // namespace
}  // namespace kiosk::account
