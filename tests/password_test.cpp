#include "account/password.h"

#include "sim/gtest_report.h"
#include "sim/random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace kiosk::account {
namespace {

const std::string kUpper = "ABCDEFGHJKLMNPQRSTUVWXYZ";
const std::string kLower = "abcdefghijkmnopqrstuvwxyz";
const std::string kDigit = "23456789";
const std::string kOther = "!#%+-=?@^_";
const std::string* const kKinds[] = {&kUpper, &kLower, &kDigit, &kOther};

std::string Text(const Password& password) { return {password.Get(), password.Get() + password.Size()}; }

TEST(PasswordTest, EveryCharacterIsEquallyLikelyAndEveryKindPresent) {
  constexpr int kPasswords = 31'250;  // a million characters
  std::map<char, double> counts;
  for (int i = 0; i < kPasswords; ++i) {
    const std::string text = Text(GenerateKioskPassword());
    ASSERT_EQ(text.size(), 32U);
    for (const std::string* kind : kKinds) {
      ASSERT_NE(text.find_first_of(*kind), std::string::npos) << text;
    }
    for (const char character : text) {
      ++counts[character];
    }
  }
  EXPECT_EQ(counts.size(), 67U);
  double deviation = 0;
  for (const std::string* kind : kKinds) {
    double total = 0;
    for (const char character : *kind) {
      total += counts[character];
    }
    const double expected = total / static_cast<double>(kind->size());
    for (const char character : *kind) {
      deviation += std::pow(counts[character] - expected, 2) / expected;
    }
    // Passwords without one of the kinds are thrown away, which favours the rare ones by 2 % at the most.
    EXPECT_NEAR(expected, 1'000'000 / 67.0, 450) << *kind;
  }
  // Chi-square with 63 degrees of freedom: above 150 less than once in ten million runs; below 18 as rarely, if it is
  // random at all.
  EXPECT_LT(deviation, 150);
  EXPECT_GT(deviation, 18);
}

TEST(PasswordTest, BytesThatWouldFavourACharacterAreDiscarded) {
  int calls = 0;
  const sim::RandomScript script([&calls](unsigned char* buffer, std::size_t size) {
    EXPECT_EQ(size, 128U);
    for (std::size_t i = 0; i < size; ++i) {
      buffer[i] = static_cast<unsigned char>(calls == 0 ? 201 + i % 55 : 170 + i);
    }
    ++calls;
    return true;
  });
  // Nothing of the first fill counts. The second begins at 170 = 2 * 67 + 36 and goes on behind 200 with 0.
  EXPECT_EQ(Text(GenerateKioskPassword()), "nopqrstuvwxyz23456789!#%+-=?@^_A");
  EXPECT_EQ(calls, 2);
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
