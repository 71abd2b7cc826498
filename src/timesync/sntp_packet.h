// The packets of the Simple Network Time Protocol (RFC 4330), without Windows.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kiosk::timesync {

inline constexpr std::size_t kSntpPacketSize = 48;

// A client's request, version 3. It carries no time of its own.
std::array<std::uint8_t, kSntpPacketSize> SntpRequest() noexcept;

// A span, or a moment: since 1601 (UTC), as Windows' file times count.
using Milliseconds = std::int64_t;

// When the server received the request and when it sent its reply.
struct SntpTimes {
  Milliseconds received;
  Milliseconds sent;
};

// Reads a datagram. Empty unless it is exactly one packet of a server that has a time to give: a stratum of 0 means
// that it has none, or that it wants to be left alone. Times count from 1900 until 2036-02-07 06:28:16 UTC and from
// then on until 2104; the first bit tells which.
std::optional<SntpTimes> ParseSntpReply(std::span<const std::uint8_t> datagram) noexcept;

// How far the local clock, which read `sent` and `received` at its end of the exchange, is behind the server's;
// negative when it is ahead.
Milliseconds ClockOffset(Milliseconds sent, const SntpTimes& server, Milliseconds received) noexcept;

}  // namespace kiosk::timesync
