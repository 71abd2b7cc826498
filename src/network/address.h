// IPv4 addresses as numbers and text, and which of them can serve as what. No Windows header.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kiosk::network {

// The first number of the dotted form in the highest byte.
using Address = std::uint32_t;

// "192.168.0.1": exactly four decimal numbers of 0 to 255 without leading zeros; nothing around them.
std::optional<Address> ParseAddress(std::string_view text) noexcept;
std::string AddressText(Address address);

// The network mask of a prefix of 0 to 32 bits.
Address MaskOf(int prefixLength) noexcept;

// Names one computer: none of 0.0.0.0/8, multicast, reserved, broadcast.
bool IsUnicast(Address address) noexcept;

// One computer inside the network of that prefix (1 to 30 bits), which is neither the network itself nor its broadcast,
// nor this computer's loopback.
bool IsHostIn(Address address, int prefixLength) noexcept;

}  // namespace kiosk::network
