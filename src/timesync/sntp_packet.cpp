#include "timesync/sntp_packet.h"

namespace kiosk::timesync {
namespace {

constexpr std::uint8_t kVersion3Client = 0x1B;
constexpr std::uint8_t kModeMask = 0x07;
constexpr std::uint8_t kServer = 4;
constexpr std::size_t kStratumAt = 1;
constexpr std::size_t kReceiveTimeAt = 32;
constexpr std::size_t kTransmitTimeAt = 40;
constexpr std::uint64_t kFrom1601To1900 = 9'435'484'800;  // s

std::uint64_t BigEndian(std::span<const std::uint8_t> bytes) noexcept {
  std::uint64_t number = 0;
  for (const std::uint8_t byte : bytes) {
    number = number << 8 | byte;
  }
  return number;
}

// 32.32 fixed point seconds. The second era begins where the 32 bits of seconds overflow.
Milliseconds TimeAt(std::span<const std::uint8_t> datagram, std::size_t position) noexcept {
  std::uint64_t seconds = BigEndian(datagram.subspan(position, 4));
  const std::uint64_t fraction = BigEndian(datagram.subspan(position + 4, 4));
  if ((seconds & 0x8000'0000U) == 0) {
    seconds += std::uint64_t{1} << 32;
  }
  return static_cast<Milliseconds>((seconds + kFrom1601To1900) * 1000 + (fraction * 1000 >> 32));
}

}  // namespace

std::array<std::uint8_t, kSntpPacketSize> SntpRequest() noexcept { return {kVersion3Client}; }

std::optional<SntpTimes> ParseSntpReply(std::span<const std::uint8_t> datagram) noexcept {
  if (datagram.size() != kSntpPacketSize || (datagram[0] & kModeMask) != kServer || datagram[kStratumAt] == 0) {
    return std::nullopt;
  }
  return SntpTimes{TimeAt(datagram, kReceiveTimeAt), TimeAt(datagram, kTransmitTimeAt)};
}

Milliseconds ClockOffset(Milliseconds sent, const SntpTimes& server, Milliseconds received) noexcept {
  return ((server.received + server.sent) - (sent + received)) / 2;
}

}  // namespace kiosk::timesync
