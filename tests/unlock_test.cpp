// The unlock of the terminal settings: what the token is, and all the ways to lose it.
#include "account/unlock.h"

#include "json/serialise.h"
#include "sim/random.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

#include <algorithm>

namespace kiosk::account {
namespace {

class UnlockTest : public test::KioskTerminal {
 protected:
  static std::string TokenFor(DWORD session) {
    const json::Value reply = test::Ask(Unlock, test::Credentials("way out"), session);
    EXPECT_EQ(reply.keys(), (std::vector<std::string>{"ok", "unlockToken", "expiresInSeconds"}));
    EXPECT_EQ(json::Member(reply, "expiresInSeconds").number(), 600);
    return json::Member(reply, "unlockToken").text();
  }
  static std::string Refusal(const std::string& password) {
    return json::Serialise(test::Ask(Unlock, test::Credentials(password), 3));
  }
};

TEST_F(UnlockTest, OneTokenForOneSession) {
  const std::string token = TokenFor(2);
  EXPECT_TRUE(CheckUnlockToken(token, 2));
  EXPECT_TRUE(CheckUnlockToken(token, 2));
  EXPECT_FALSE(CheckUnlockToken(token, 3));
  std::string upper = token;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
  ASSERT_NE(upper, token);  // without any letter once in three million times
  std::string firstWrong = token;
  firstWrong.front() = token.front() == '0' ? '1' : '0';
  std::string lastWrong = token;
  lastWrong.back() = token.back() == '0' ? '1' : '0';
  for (const std::string& wrong : {std::string(), upper, firstWrong, lastWrong, token.substr(1), token + "0",
                                   token + token, std::string(32, '\0'), std::string(8000, 'a')}) {
    EXPECT_FALSE(CheckUnlockToken(wrong, 2)) << wrong;
  }

  const std::string second = TokenFor(3);
  EXPECT_NE(second, token);
  EXPECT_FALSE(CheckUnlockToken(token, 2));
  OnSessionSignedOut(2);
  EXPECT_TRUE(CheckUnlockToken(second, 3));
  OnSessionSignedOut(3);
  EXPECT_FALSE(CheckUnlockToken(second, 3));
  OnSessionSignedOut(3);
  EXPECT_EQ(test::CountLogged("INFO terminal settings locked: session 3 signed out"), 1);
  EXPECT_EQ(test::CountLogged("INFO terminal settings unlocked for session 3, 600 s"), 1);

  const std::string third = TokenFor(3);
  DropUnlock();
  EXPECT_FALSE(CheckUnlockToken(third, 3));
  EXPECT_FALSE(CheckUnlockToken(std::string(32, '\0'), 0));
}

TEST_F(UnlockTest, ItLastsTenMinutesAndItsEndIsLoggedOnce) {
  constexpr char kExpired[] = "INFO terminal settings locked: the unlock expired";
  const std::string last = TokenFor(2);
  clock_.RunFor(599'999);
  EXPECT_TRUE(CheckUnlockToken(last, 2));
  clock_.RunFor(1);
  EXPECT_FALSE(CheckUnlockToken(last, 3));
  EXPECT_EQ(test::CountLogged(kExpired), 0);
  EXPECT_FALSE(CheckUnlockToken(last, 2) || CheckUnlockToken(last, 2));
  EXPECT_EQ(test::CountLogged(kExpired), 1);
}

TEST_F(UnlockTest, RefusalsCarryTheCodeOfTheCheckAndLeaveAnEarlierUnlock) {
  const std::string token = TokenFor(2);
  EXPECT_EQ(Refusal("wrong"), R"({"ok":false,"error":"wrong_password"})");
  answer_ = {.status = 503};
  EXPECT_EQ(Refusal("Way out"), R"({"ok":false,"error":"unreachable"})");
  test::SetDword(state::kStateKey, L"Provisioned", 0);
  EXPECT_EQ(Refusal("Way out"), R"({"ok":false,"error":"not_provisioned"})");
  for (const char* code : {"wrong_password", "unreachable", "not_provisioned"}) {
    EXPECT_EQ(test::CountLogged(std::string("WARN terminal settings unlock refused: ") + code), 1) << code;
  }
  EXPECT_TRUE(CheckUnlockToken(token, 2));
}

TEST_F(UnlockTest, TheTokenIsItsRandomBytesInHexadecimal) {
  {
    const sim::RandomScript bytes([](unsigned char* buffer, std::size_t size) {
      for (std::size_t i = 0; i < size; ++i) {
        buffer[i] = static_cast<unsigned char>(0xF0 - 15 * i);
      }
      return size == 16;
    });
    EXPECT_EQ(TokenFor(2), "f0e1d2c3b4a5968778695a4b3c2d1e0f");
  }
  const sim::RandomScript none([](unsigned char*, std::size_t) { return false; });
  EXPECT_EQ(Refusal("way out"), R"({"ok":false,"error":"failed"})");
}

}  // namespace
}  // namespace kiosk::account
