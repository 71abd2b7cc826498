// A terminal whose updates are looked at, on virtual time.
#pragma once

#include "enrolment/device_token.h"
#include "json/parse.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/com.h"
#include "sim/machine.h"
#include "sim/sessions.h"
#include "sim/windows_update.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "updates/update_state.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::test {

inline constexpr DWORD kShellSession = 2;

// Enrolled with the token "tok"; the kiosk account is signed in to kShellSession.
class UpdatesTerminal : public CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    ASSERT_TRUE(win32::CreateStopEvent());
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    ASSERT_TRUE(enrolment::StoreDeviceToken("tok"));
    sim::SetSession(kShellSession, L"NorvaneKiosk", sim::ComputerName());
  }
  static void SetPolicy(const char* start, const char* end, const std::string& days, bool automatic = true) {
    SetString(state::kStateKey, L"UpdatesPolicy",
              win32::ToWide(std::string(R"({"automatic":)") + (automatic ? "true" : "false") +
                            R"(,"window":{"start":")" + start + R"(","end":")" + end + R"(","days":)" + days + "}}"));
  }
  static std::string StoredReport() { return win32::ToNarrow(state::ReadStateString(state::kOsUpdatesReport)); }
  static std::string InReport(const char* member) {
    const auto report = json::Parse(StoredReport());
    return report ? json::AsString(json::Member(*report, member), "null") : "no report";
  }
  static std::string WindowDone() { return win32::ToNarrow(state::ReadStateString(state::kOsUpdatesWindowDone)); }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
};

}  // namespace kiosk::test
