#include "account/password.h"

#include "sim/gtest_report.h"
#include "sim/random.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace kiosk::account {
namespace {

std::string Text(const Password& password) { return {password.Get(), password.Get() + password.Size()}; }

// Each character stands for three numbers of a byte; those above 200, which would favour some, are passed over.
TEST(PasswordTest, EveryCharacterIsEquallyLikelyAndEveryKindPresent) {
  const std::string alphabet = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789!#%+-=?@^_";
  int whole = 0;
  for (unsigned start = 0; start < 201; ++start) {
    std::string expected;
    for (unsigned i = start; expected.size() < 32; ++i) {
      expected += i % 256 < 201 ? alphabet.substr(i % 256 % 67, 1) : "";
    }
    bool first = true;
    const sim::RandomScript script([&](unsigned char* buffer, std::size_t size) {
      for (std::size_t i = 0; i < size; ++i) {
        buffer[i] = static_cast<unsigned char>(first ? 201 + i % 55 : start + i);
      }
      first = false;
      return size == 128;
    });
    const auto has = [&](std::size_t begin, std::size_t end) {
      return expected.find_first_of(alphabet.substr(begin, end - begin)) != std::string::npos;
    };
    const bool everyKind = has(0, 24) && has(24, 49) && has(49, 57) && has(57, 67);
    EXPECT_EQ(Text(GenerateKioskPassword()), everyKind ? expected : "") << start;
    whole += everyKind ? 1 : 0;
  }
  EXPECT_GT(whole, 30);
}

TEST(PasswordTest, GivesUpWithoutLeavingAnything) {
  // Bytes that give one kind of characters only; or, in the third attempt, no bytes.
  struct {
    int byte;
    int failing;
    int expected;
  } const cases[] = {{60, 99, 16}, {199, 3, 3}};
  for (const auto& each : cases) {
    int calls = 0;
    const sim::RandomScript script([&](unsigned char* buffer, std::size_t size) {
      std::memset(buffer, each.byte, size);
      return ++calls != each.failing;
    });
    const Password none = GenerateKioskPassword();
    EXPECT_EQ(calls, each.expected);
    EXPECT_TRUE(none.Empty());
    EXPECT_EQ(none.Get()[0], L'\0');
  }
}

TEST(PasswordTest, IsGoneFromMemoryAfterUse) {
  alignas(Password) static unsigned char memory[2][sizeof(Password)];
  constexpr std::size_t kTextBytes = 33 * sizeof(wchar_t);  // the text comes first
  const unsigned char zeros[kTextBytes] = {};
  auto* const password = new (memory[0]) Password(GenerateKioskPassword());
  ASSERT_EQ(password->Size(), 32U);
  ASSERT_NE(memory[0][0], 0);
  auto* const moved = new (memory[1]) Password(std::move(*password));
  EXPECT_EQ(moved->Size(), 32U);
  EXPECT_EQ(std::memcmp(memory[0], zeros, sizeof(zeros)), 0);
  std::destroy_at(moved);
  // Read from outside, so that the compiler cannot reason about an object that is gone.
  unsigned char left[kTextBytes];
  std::memset(left, 1, sizeof(left));
  ASSERT_NE(ReadProcessMemory(GetCurrentProcess(), memory[1], left, sizeof(left), nullptr), 0);
  EXPECT_EQ(std::memcmp(left, zeros, sizeof(zeros)), 0);
  std::destroy_at(password);
}

}  // namespace
}  // namespace kiosk::account
