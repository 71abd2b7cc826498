// The commands that change the terminal's settings: who may send them.
#include "account/unlock.h"
#include "json/serialise.h"
#include "pipe/dispatch.h"
#include "sim/machine.h"
#include "tests/support/terminal.h"

namespace kiosk::pipe {
namespace {

class TerminalSettingsTest : public test::KioskTerminal {
 protected:
  static std::string Send(const std::string& command, const std::string& token, bool isKioskAccount = true) {
    CallerRecord caller{};
    caller.isInteractive = true;
    caller.isKioskAccount = isKioskAccount;
    caller.sessionId = test::kKioskSession;
    json::PostReplyAction after = nullptr;
    const std::string request = R"({"cmd":")" + command + R"(","unlockToken":)" + token + "}";
    return json::Serialise(Dispatch({nullptr, caller}, request, after));
  }
};

TEST_F(TerminalSettingsTest, OnlyTheUnlockedKioskSessionReachesThem) {
  const std::string token =
      "\"" + json::Member(account::Unlock("way out", test::kKioskSession), "unlockToken").text() + "\"";
  for (const char* command :
       {"net.set", "proxy.set", "time.sync", "power.get", "power.set", "os.updates", "os.install"}) {
    EXPECT_EQ(Send(command, token, false), R"({"ok":false,"error":"not_permitted"})") << command;
    for (const char* wrong : {"null", "\"\"", "\"00000000000000000000000000000000\"", "[]"}) {
      EXPECT_EQ(Send(command, wrong), R"({"ok":false,"error":"not_unlocked"})") << command << wrong;
    }
    EXPECT_EQ(test::CountLogged(std::string("WARN ") + command +
                                " refused: terminal settings are not unlocked for session 2"),
              4);
  }
  for (const char* command : {"net.set", "proxy.set", "power.set"}) {
    EXPECT_EQ(Send(command, token), R"({"ok":false,"error":"invalid"})");
  }
  for (const char* command : {"power.get", "os.updates"}) {
    EXPECT_TRUE(Send(command, token).starts_with(R"({"ok":true,)")) << command;
  }
  sim::WriteNumber(L"TimeService", L"NoService", 1);
  EXPECT_EQ(Send("time.sync", token), R"({"ok":false,"error":"sync_failed","server":"time.windows.com"})");
}

}  // namespace
}  // namespace kiosk::pipe
