// A time server's datagram: taken exactly when its first two bytes are right, with the times that were put there, and
// an offset that undoes the one that was put between two clocks.
#include "fuzz/peer.h"
#include "timesync/sntp_packet.h"

#include <cstring>

namespace {

using namespace kiosk::timesync;

// 1968-01-20 03:14:08 UTC, the first moment that a packet can name, in milliseconds since 1601, and how many follow it.
constexpr Milliseconds kFirst = (std::int64_t{134'774} * 86'400 - 61'505'152) * 1000;
constexpr std::uint64_t kCount = (std::uint64_t{1} << 32) * 1000;

// The protocol's fixed point: seconds since 1900 in the upper half, modulo 2^32. Rounded up, as the reader rounds down.
std::uint64_t FixedPoint(Milliseconds time) {
  const std::uint64_t since1900 = static_cast<std::uint64_t>(time) - std::uint64_t{109'207} * 86'400'000;
  return (since1900 / 1000) << 32 | ((since1900 % 1000 << 32) + 999) / 1000;
}

void Put(std::uint8_t* at, std::uint64_t number) {
  for (int i = 7; i >= 0; --i, number >>= 8) {
    at[i] = static_cast<std::uint8_t>(number);
  }
}

// The bytes as a number in their order.
std::uint64_t Get(const std::uint8_t* at) {
  std::uint64_t number = 0;
  for (int i = 0; i < 8; ++i) {
    number = number * 256 + at[i];
  }
  return number;
}

// Any server's clock and any way, as long there as back.
void RequireOffset(std::array<std::uint8_t, kSntpPacketSize> packet, std::uint64_t at, std::uint32_t random) {
  const Milliseconds server = kFirst + static_cast<Milliseconds>(at % (kCount - 100'000));
  const Milliseconds behind = static_cast<std::int32_t>(random);
  const Milliseconds way = random % 5000;
  const Milliseconds inside = random % 77;
  packet[0] = 0x1C;
  packet[1] = 1;
  Put(&packet[32], FixedPoint(server));
  Put(&packet[40], FixedPoint(server + inside));
  const auto times = ParseSntpReply(packet);
  Require(times && times->received == server && times->sent == server + inside);
  Require(ClockOffset(server - way - behind, *times, server + inside + way - behind) == behind);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = ParseSntpReply({data, size});
  Require(parsed.has_value() == (size == 48 && data[0] % 8 == 4 && data[1] != 0));
  if (parsed) {
    for (const auto& [time, at] : {std::pair{parsed->received, 32}, {parsed->sent, 40}}) {
      Require(time >= kFirst && time < kFirst + static_cast<Milliseconds>(kCount));
      Require(Get(data + at) - FixedPoint(time) <= (std::uint64_t{1} << 32) / 1000);  // within that millisecond
    }
  }
  std::array<std::uint8_t, kSntpPacketSize> packet{};
  std::memcpy(packet.data(), data, std::min(size, packet.size()));
  RequireOffset(packet, Get(&packet[32]), static_cast<std::uint32_t>(Get(&packet[40])));
  return 0;
}
