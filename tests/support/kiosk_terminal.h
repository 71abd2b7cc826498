// A terminal in kiosk mode, and a portal in script that it checks in with.
#pragma once

#include "account/account_lock.h"
#include "enrolment/device_token.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/http.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"

#include <string>

namespace kiosk::test {

inline constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
inline constexpr DWORD kKioskSession = 2;
inline constexpr DWORD kOtherSession = 3;

inline std::wstring AutoAdminLogon() { return state::ReadString(kWinlogon, L"AutoAdminLogon").value_or(L"none"); }

// Enrolled with the token "tok", provisioned, the kiosk account signed in by itself to kKioskSession and an
// administrator to kOtherSession. The state key is new.
inline void MakeKioskTerminal() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test");
  {
    const win32::LockGuard guard(account::AccountLock());
    ASSERT_TRUE(enrolment::StoreDeviceToken("tok"));
  }
  sim::RemoveUser(L"NorvaneKiosk");
  SetString(state::kStateKey, L"AccountSid", sim::AddUser(L"NorvaneKiosk"));
  SetDword(state::kStateKey, L"Provisioned", 1);
  SetDword(state::kStateKey, L"OwnsAutoLogon", 1);
  SetString(kWinlogon, L"AutoAdminLogon", L"1");
  SetString(kWinlogon, L"DefaultUserName", L"NorvaneKiosk");
  sim::SetSession(kKioskSession, L"NorvaneKiosk", sim::ComputerName());
  sim::SetSession(kOtherSession, L"Anna", sim::ComputerName());
}

class KioskTerminal : public CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    MakeKioskTerminal();
    portal_.On(L"POST", L"/api/kiosk/check-in", [this](const sim::Request&) { return answer_; });
    SetExitPassword("\"Way out\"");
  }

  // As JSON.
  void SetExitPassword(const std::string& json) {
    answer_ = {.body = R"({"status":"enrolled","exitPassword":)" + json + "}"};
  }
  [[nodiscard]] std::size_t CheckIns() const { return portal_.Requests().size(); }
  static DWORD Failures() {
    const auto stored = state::ReadState(state::kMaintenanceFailures);
    return stored ? stored->Dword().value_or(99) : 0;
  }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
  sim::ScriptedPortal portal_;
  sim::Response answer_;  // to every check-in
};

}  // namespace kiosk::test
