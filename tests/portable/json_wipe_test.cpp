// Watches every block that is given back to the heap for a secret. It replaces the global allocation functions, so it
// is an executable of its own.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "json/parse.h"

namespace {

constexpr std::size_t kHeader = 16;
constexpr std::string_view kSecrets[] = {"Xq7secret", "Xq7secret-of-more-than-sixteen-bytes"};
bool watching = false;
int leaks = 0;

}  // namespace

void* operator new(std::size_t size) {
  void* block = std::calloc(size + kHeader, 1);  // zeros: no block may show what an earlier one held
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  std::memcpy(block, &size, sizeof(size));
  return static_cast<char*>(block) + kHeader;
}

void operator delete(void* memory) noexcept {
  if (memory == nullptr) {
    return;
  }
  char* block = static_cast<char*>(memory) - kHeader;
  std::size_t size = 0;
  std::memcpy(&size, block, sizeof(size));
  if (watching) {
    const std::string_view content(block + kHeader, size);
    leaks += content.find("q7secret") != std::string_view::npos ? 1 : 0;
  }
  std::free(block);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace {

using kiosk::json::Parse;
using kiosk::json::Value;

std::string Request(std::string_view secret, std::string_view tail) {
  return R"({"cmd":"unlock","list":[1,["two",{"password":")" + std::string(secret) + "\"}]]" + std::string(tail);
}

template <typename Action>
int LeaksOf(const Action& action) {
  leaks = 0;
  watching = true;
  action();
  watching = false;
  return leaks;
}

TEST(JsonWipe, LeavesNoTextInFreedMemory) {
  for (const std::string_view secret : kSecrets) {
    const std::string escaped = R"(\u00e9\n)" + std::string(secret);
    for (const std::string& text : {Request(secret, "}"), Request(escaped, "}")}) {
      EXPECT_GT(LeaksOf([&] { Parse(text).reset(); }), 0) << "the watch sees nothing";
      EXPECT_EQ(LeaksOf([&] { Parse(text)->Wipe(); }), 0) << text;
      EXPECT_EQ(LeaksOf([&] {
                  Value moved = Value::Array();
                  for (int i = 0; i < 9; ++i) {
                    moved.Append(*Parse(text));
                  }
                  moved.Wipe();
                }),
                0);
    }
    // Every way in which reading the rest can fail, and a half-read text itself.
    for (const char* tail : {"", "]", ",\"x\":\"half", ",\"x\":\"\\q", ",\"x\":1e999", "} trailing"}) {
      const std::string text = Request(secret, tail);
      EXPECT_EQ(LeaksOf([&] { EXPECT_FALSE(Parse(text)); }), 0) << tail;
    }
    for (const char* end : {"\\q", "\\", "", "\\u12"}) {
      const std::string text = "[\"\\n" + std::string(secret) + end;
      EXPECT_EQ(LeaksOf([&] { EXPECT_FALSE(Parse(text)); }), 0) << end;
    }
    const std::string repeated = "{\"p\":\"" + std::string(secret) + "\",\"p\":1}";
    EXPECT_EQ(LeaksOf([&] { Parse(repeated).reset(); }), 0);
    EXPECT_EQ(LeaksOf([&] {
                Value shortened(secret);
                shortened.EditText()->clear();
                shortened.Wipe();
              }),
              0);
    const std::string key = "{\"" + std::string(secret) + "-is-long-enough\":1}";
    EXPECT_EQ(LeaksOf([&] { Parse(key)->Wipe(); }), 0);
  }
}

}  // namespace
