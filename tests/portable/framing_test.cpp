// How much of a request is read; where it ends is the fuzz target's.
#include "pipe/framing.h"

#include <gtest/gtest.h>

#include <cstring>

namespace kiosk::pipe {
namespace {

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
