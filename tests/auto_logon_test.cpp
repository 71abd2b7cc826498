#include "account/auto_logon.h"

#include "account/winlogon.h"
#include "sim/faults.h"
#include "sim/lsa.h"
#include "sim/machine.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"

namespace kiosk::account {
namespace {

using test::HasValue;

struct Setting {
  const wchar_t* key;
  const wchar_t* name;
  DWORD type;  // the computer's own value, of a type that nobody expects
  std::string bytes;
};
using std::string_literals::operator""s;  // NOLINT(misc-unused-using-decls): used by the table below

const Setting kSettings[] = {
    {kWinlogonKey, L"AutoAdminLogon", REG_DWORD, "\x01\0\0\0"s},
    {kWinlogonKey, L"DefaultUserName", REG_EXPAND_SZ, "%\0U\0%\0\0\0"s},
    {kWinlogonKey, L"DefaultDomainName", REG_SZ, "L\0\0\0"s},
    {kWinlogonKey, L"DefaultPassword", REG_BINARY, "\x80\xff\0secret"s},
    {kWinlogonKey, L"AutoLogonCount", REG_QWORD, "12345678"s},
    {kPasswordLessKey, L"DevicePasswordLessBuildVersion", REG_MULTI_SZ, "a\0\0\0b\0\0\0\0\0"s},
    {kSystemPoliciesKey, L"EnableFirstLogonAnimation", REG_NONE, ""s},
};

using Values = std::vector<std::pair<DWORD, std::string>>;  // type and bytes; type 99: none

std::pair<DWORD, std::string> Read(const wchar_t* key, const std::wstring& name) {
  state::RawValue value;
  return state::ReadValue(key, name.c_str(), value) == ERROR_SUCCESS
             ? std::pair(value.type, std::string(value.bytes.begin(), value.bytes.end()))
             : std::pair(DWORD{99}, std::string());
}

Values Present() {
  Values values;
  for (const Setting& setting : kSettings) {
    values.push_back(Read(setting.key, setting.name));
  }
  return values;
}

Values Saved() {
  Values values;
  for (const Setting& setting : kSettings) {
    values.push_back(Read(state::kStateKey, std::wstring(L"Prior") + setting.name));
  }
  return values;
}

// The computer before enrolment: every setting, or every other one, or none.
void PrepareComputer(int every) {
  for (const wchar_t* key : {L"SOFTWARE\\Norvane", sim::kMachineKey, kPasswordLessKey}) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
  }
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  int number = 0;
  for (const Setting& setting : kSettings) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, setting.key, setting.name);
    if (every != 0 && ++number % every == 0) {
      test::SetRaw(setting.key, setting.name, setting.type, setting.bytes.data(), setting.bytes.size());
    }
    test::SetString(state::kStateKey, (std::wstring(L"Prior") + setting.name).c_str(), L"stale");
  }
}

// What a provisioning then does.
void BecomeKiosk() {
  test::SetString(kWinlogonKey, L"DefaultUserName", L"norvaneKIOSK");
  EXPECT_TRUE(StoreAutoLogonSecret(L"Pass word", 9));
  test::SetString(kWinlogonKey, L"DefaultDomainName", L"HERE");
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, L"DefaultPassword");
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, L"AutoLogonCount");
  test::SetDword(kPasswordLessKey, L"DevicePasswordLessBuildVersion", 0);
  test::SetDword(kSystemPoliciesKey, L"EnableFirstLogonAnimation", 0);
  const win32::LockGuard guard(AutoLogonLock());
  SetAutoAdminLogon(true);
}

// Nothing that this area keeps in the state key.
bool NothingKept() {
  return Saved() == Values(std::size(kSettings), {99, ""}) &&
         !HasValue(state::kStateKey, L"PriorLsaSecret") && !HasValue(state::kStateKey, L"OwnsAutoLogon");
}

class AutoLogonTest : public test::CleanMachine {};

TEST_F(AutoLogonTest, GivesBackWhatItTookWhateverItWas) {
  for (const int every : {1, 2, 0}) {
    for (const bool secret : {false, true}) {
      SCOPED_TRACE(testing::Message() << every << " " << secret);
      PrepareComputer(every);
      if (secret) {
        sim::SetSecret(L"DefaultPassword", L"theirs");
      }
      const Values before = Present();
      {
        const sim::FaultPass pass;
        EXPECT_TRUE(TakeOverAutoLogon());
        // The mark comes after all copies, and a flush makes all of it durable.
        EXPECT_TRUE(pass.Flushed(L"OwnsAutoLogon"));
        EXPECT_TRUE(pass.Calls()[pass.Calls().size() - 2].object.ends_with(L"\\OwnsAutoLogon"));
      }
      EXPECT_EQ(Present(), before);
      EXPECT_EQ(Saved(), before) << "or a stale copy stayed";
      BecomeKiosk();
      EXPECT_EQ(sim::Secret(L"DefaultPassword"), L"Pass word");
      {
        const sim::FaultPass pass;
        EXPECT_TRUE(TakeOverAutoLogon());
        EXPECT_EQ(pass.Count(), 0) << "the kiosk's own settings were saved";
      }
      RestoreAutoLogon();
      EXPECT_EQ(Present(), before);
      EXPECT_FALSE(sim::Secret(L"DefaultPassword"));
      EXPECT_TRUE(NothingKept());
    }
  }
  EXPECT_EQ(test::CountLogged("WARN an auto sign-in secret from before enrolment was replaced and cannot be put back"),
            3);
  EXPECT_EQ(test::CountLogged("INFO auto sign-in restored to what it was before enrolment"), 6);
  EXPECT_EQ(sim::OpenLsaObjects(), 0);
}

TEST_F(AutoLogonTest, AnotherUsersAutoSignInIsLeftAlone) {
  PrepareComputer(1);
  EXPECT_TRUE(TakeOverAutoLogon());
  BecomeKiosk();
  test::SetString(kWinlogonKey, L"DefaultUserName", L"Łukasz");
  const Values before = Present();
  RestoreAutoLogon();
  EXPECT_EQ(Present(), before);
  EXPECT_EQ(sim::Secret(L"DefaultPassword"), L"Pass word");
  EXPECT_TRUE(NothingKept());
  EXPECT_EQ(test::LogTexts(),
            std::vector<std::string>{"WARN auto sign-in now names 'Łukasz', not NorvaneKiosk; left as it is"});
}

TEST_F(AutoLogonTest, NothingIsRestoredWithoutTheMark) {
  PrepareComputer(1);
  EXPECT_TRUE(TakeOverAutoLogon());
  BecomeKiosk();
  test::SetString(state::kStateKey, L"OwnsAutoLogon", L"1");  // not the type of the mark
  const Values saved = Saved();
  RestoreAutoLogon();
  EXPECT_EQ(Saved(), saved);
  EXPECT_EQ(sim::Secret(L"DefaultPassword"), L"Pass word");
  // Copies of a take-over that never got as far as its mark.
  PrepareComputer(1);
  RestoreAutoLogon();
  EXPECT_TRUE(NothingKept());
  EXPECT_TRUE(test::LogTexts().empty());
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
    EXPECT_EQ(Read(kWinlogonKey, L"AutoAdminLogon"),
              std::pair(DWORD{REG_SZ}, on ? std::string("1\0\0\0", 4) : std::string("0\0\0\0", 4)));
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    SetAutoAdminLogon(on);
  }
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"ERROR LsaStorePrivateData failed (5)", "ERROR cannot set AutoAdminLogon=1",
                                      "ERROR cannot set AutoAdminLogon=0"}));
}

}  // namespace
}  // namespace kiosk::account
