#include "network/address.h"

namespace kiosk::network {
namespace {

constexpr Address kLoopback = 127;
constexpr Address kFirstMulticast = 224;

// One number of the dotted form from the front of `text`; it is taken off.
std::optional<Address> TakeNumber(std::string_view& text) noexcept {
  Address number = 0;
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    number = number * 10 + static_cast<Address>(text[digits] - '0');
    if (++digits > 3) {
      return std::nullopt;
    }
  }
  if (digits == 0 || number > 255 || (digits > 1 && text[0] == '0')) {
    return std::nullopt;
  }
  text.remove_prefix(digits);
  return number;
}

}  // namespace

std::optional<Address> ParseAddress(std::string_view text) noexcept {
  Address address = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (!text.starts_with('.')) {
        return std::nullopt;
      }
      text.remove_prefix(1);
    }
    const std::optional<Address> number = TakeNumber(text);
    if (!number) {
      return std::nullopt;
    }
    address = address << 8 | *number;
  }
  return text.empty() ? std::optional(address) : std::nullopt;
}

std::string AddressText(Address address) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string(address >> shift & 0xFF) + (shift > 0 ? "." : "");
  }
  return text;
}

Address MaskOf(int prefixLength) noexcept { return prefixLength == 0 ? 0 : ~Address{0} << (32 - prefixLength); }

bool IsUnicast(Address address) noexcept {
  const Address first = address >> 24;
  return first != 0 && first < kFirstMulticast;
}

bool IsHostIn(Address address, int prefixLength) noexcept {
  const Address host = address & ~MaskOf(prefixLength);
  return IsUnicast(address) && address >> 24 != kLoopback && host != 0 && host != ~MaskOf(prefixLength);
}

}  // namespace kiosk::network
