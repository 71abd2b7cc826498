// A terminal whose updates are looked at, on virtual time.
#pragma once

#include "json/parse.h"
#include "sim/com.h"
#include "sim/machine.h"
#include "sim/windows_update.h"
#include "tests/support/terminal.h"
#include "updates/update_state.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::test {

// Enrolled with the token "tok"; the kiosk account is signed in to kKioskSession.
class UpdatesTerminal : public EnrolledTerminal {
 protected:
  void SetUp() override {
    EnrolledTerminal::SetUp();
    ASSERT_TRUE(win32::CreateStopEvent());
    sim::SetSession(kKioskSession, L"NorvaneKiosk", sim::ComputerName());
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
};

}  // namespace kiosk::test
