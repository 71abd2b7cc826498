// Where reading a request ends, however it is cut into pieces.
#include "fuzz/framing_oracle.h"

#include <gtest/gtest.h>

namespace kiosk::pipe {
namespace {

TEST(Framing, EveryCutEndsWhereTheNaiveRuleEndsIt) {
  const char* const plain[] = {"{\"cmd\":\"status\"}",
                               "\v\f \t{\"cmd\":\"status\",\"x\":[{},[]]}\v \r\n trailing",
                               "{\"a\":\"}]\\\"{\\\\\"} \f",
                               "{\"a\":1} x }",
                               "[1,[2,\"[\"],{\"k\":\"\\u005d\"}]",
                               "[1,]   ",
                               "]}{}",
                               "\"text with \\\" and \\\\\" ",
                               "\"open \\",
                               "tru",
                               " true false",
                               "nullnull",
                               "-",
                               "1e999e-999",
                               "x42",
                               "\v",
                               ""};
  std::vector<std::string> texts(std::begin(plain), std::end(plain));
  texts.push_back(std::string(65, '[') + std::string(65, ']'));
  texts.emplace_back("{\"a\":\0}", 7);
  for (const std::string& text : texts) {
    for (std::size_t size = 1; size <= text.size() + 1; ++size) {
      EXPECT_TRUE(AgreesWithNaiveFraming(text, [size] { return size; })) << text << " in pieces of " << size;
    }
  }
  const std::string large = "{\"x\":\"" + std::string(9000, 'x') + "\"}";
  for (const std::size_t size : {1000U, 1023U, 1024U}) {
    EXPECT_TRUE(AgreesWithNaiveFraming(large, [size] { return size; }));
  }
}

TEST(Framing, TakesAtMost9215Bytes) {
  RequestBuffer buffer;
  for (const std::size_t count : {1023U, 1024U, 1024U, 1024U, 1024U, 1024U, 1024U, 1024U, 1024U}) {
    ASSERT_FALSE(buffer.Over());
    std::memset(buffer.Room().data(), '[', count);
    buffer.Added(count);
  }
  EXPECT_TRUE(buffer.Over());
  EXPECT_TRUE(buffer.Room().empty());
  EXPECT_EQ(buffer.Request().size(), 9215U);
}

TEST(Framing, WipesWhatItHeld) {
  alignas(RequestBuffer) static unsigned char memory[sizeof(RequestBuffer)];
  auto* buffer = new (memory) RequestBuffer();
  std::memcpy(buffer->Room().data(), "hunter22", 8);
  buffer->Added(8);
  const std::string_view held(reinterpret_cast<char*>(memory), sizeof(memory));
  ASSERT_NE(held.find("hunter22"), std::string_view::npos);
  buffer->~RequestBuffer();
  EXPECT_EQ(held.find("hunter22"), std::string_view::npos);
}

}  // namespace
}  // namespace kiosk::pipe
