// What a time server's datagram says, and what is no answer.
#include "timesync/sntp_packet.h"

#include <gtest/gtest.h>

#include <vector>

namespace kiosk::timesync {
namespace {

// Fixed point seconds since 1900 at both times of a server's reply.
std::vector<std::uint8_t> Reply(std::uint64_t received, std::uint64_t sent) {
  std::vector<std::uint8_t> packet(kSntpPacketSize);
  packet[0] = 0x1C;
  packet[1] = 2;
  for (std::size_t i = 0; i < 8; ++i) {
    packet[32 + i] = static_cast<std::uint8_t>(received >> (56 - 8 * i));
    packet[40 + i] = static_cast<std::uint8_t>(sent >> (56 - 8 * i));
  }
  return packet;
}

TEST(Sntp, TimesOnBothSidesOfTheEraChange) {
  struct Case {
    std::uint64_t fixedPoint;
    Milliseconds unixTime;
  };
  for (const Case& each : {Case{0xEE'AD'84'10'00'00'00'00, 1'795'360'144'000},  // November 2026
                           Case{0xFF'FF'FF'FF'FF'FF'FF'FF, 2'085'978'495'999}, Case{0, 2'085'978'496'000},
                           Case{0x80000000, 2'085'978'496'500}, Case{0x00'00'00'0A'40'00'00'00, 2'085'978'506'250}}) {
    const auto times = ParseSntpReply(Reply(each.fixedPoint, each.fixedPoint));
    ASSERT_TRUE(times);
    EXPECT_EQ(times->received, each.unixTime + 11'644'473'600'000) << each.fixedPoint;
    EXPECT_EQ(times->sent, times->received);
  }
  // The server's clock passes the change between its two times; the local clock is two minutes short of it.
  const auto times = ParseSntpReply(Reply(0xFF'FF'FF'FF'C0'00'00'00, 0x00'00'00'00'40'00'00'00));
  ASSERT_TRUE(times);
  EXPECT_EQ(times->sent - times->received, 500);
  EXPECT_EQ(ClockOffset(times->received - 120'010, *times, times->sent - 119'990), 120'000);
}

TEST(Sntp, OffsetIsHalfTheDifferenceAndSigned) {
  EXPECT_EQ(ClockOffset(1'000, {6'020, 6'030}, 1'050), 5'000);
  EXPECT_EQ(ClockOffset(9'000, {1'020, 1'030}, 9'050), -8'000);
  EXPECT_EQ(ClockOffset(0, {1'000'000'000'000'000, 1'000'000'000'000'000}, 0), 1'000'000'000'000'000);
}

TEST(Sntp, WhatIsNoAnswer) {
  const std::vector<std::uint8_t> good = Reply(0xEE'AD'84'10'00'00'00'00, 0xEE'AD'84'10'00'00'00'00);
  ASSERT_TRUE(ParseSntpReply(good));
  for (const std::size_t size : {0U, 1U, 47U, 49U}) {
    std::vector<std::uint8_t> sized = good;
    sized.resize(size);
    EXPECT_FALSE(ParseSntpReply(sized)) << size;
  }
  for (int first = 0; first < 256; ++first) {
    std::vector<std::uint8_t> other = good;
    other[0] = static_cast<std::uint8_t>(first);
    EXPECT_EQ(ParseSntpReply(other).has_value(), first % 8 == 4) << first;
  }
  std::vector<std::uint8_t> kissOfDeath = good;
  kissOfDeath[1] = 0;
  EXPECT_FALSE(ParseSntpReply(kissOfDeath));
  EXPECT_EQ(SntpRequest()[0], 0x1B);
}

}  // namespace
}  // namespace kiosk::timesync
