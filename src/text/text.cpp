#include "text/text.h"

#include <algorithm>
#include <atomic>

namespace kiosk::text {
namespace {

constexpr bool IsContinuation(char byte) noexcept { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// Length that a lead byte announces; 1 for anything else.
constexpr std::size_t AnnouncedLength(char lead) noexcept {
  const auto byte = static_cast<unsigned char>(lead);
  if (byte >= 0xF0U) {
    return byte < 0xF8U ? 4 : 1;
  }
  if (byte >= 0xE0U) {
    return 3;
  }
  return byte >= 0xC0U ? 2 : 1;
}

}  // namespace

void AppendHex(std::string& out, unsigned char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  out += kDigits[byte >> 4U];
  out += kDigits[byte & 0x0FU];
}

std::string Hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    AppendHex(text, byte);
  }
  return text;
}

std::string_view TrimSpace(std::string_view text) noexcept {
  while (!text.empty() && IsSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && IsSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

std::size_t SequenceLength(std::string_view text) noexcept {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned lead = byte(0);
  if (lead < 0x80U) {
    return 1;
  }
  const std::size_t length = lead >= 0xF0U ? 4 : lead >= 0xE0U ? 3 : 2;
  if (lead < 0xC2U || lead > 0xF4U || text.size() < length) {
    return 0;
  }
  // The second byte has a range of its own after four of the leads.
  const unsigned low = lead == 0xE0U ? 0xA0U : lead == 0xF0U ? 0x90U : 0x80U;
  const unsigned high = lead == 0xEDU ? 0x9FU : lead == 0xF4U ? 0x8FU : 0xBFU;
  if (byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) {
      return 0;
    }
  }
  return length;
}

std::size_t CutLength(std::string_view text, std::size_t limit) noexcept {
  if (text.size() <= limit) {
    return text.size();
  }
  // Only a lead byte among the last three before the cut can own a sequence that the cut would split.
  for (std::size_t back = 1; back <= 3 && back <= limit; ++back) {
    const char byte = text[limit - back];
    if (!IsContinuation(byte)) {
      return AnnouncedLength(byte) > back ? limit - back : limit;
    }
  }
  return limit;
}

void MakeSingleLine(char* text, std::size_t length) noexcept {
  for (std::size_t i = 0; i < length;) {
    const std::string_view rest(text + i, length - i);
    const std::size_t size = SequenceLength(rest);
    const std::string_view character = rest.substr(0, size);
    if (size == 0) {
      text[i] = '?';
    } else if (character < " " || character == "\x7F" || (character >= "\u0080" && character <= "\u009F") ||
               character == "\u2028" || character == "\u2029") {
      std::fill_n(text + i, size, ' ');
    }
    i += std::max<std::size_t>(size, 1);
  }
}

void Wipe(std::string& text) noexcept {
  // Up to the capacity: a text that was shortened leaves its old end behind.
  text.resize(text.capacity());
  volatile char* bytes = text.data();
  for (std::size_t i = 0; i < text.size(); ++i) {
    bytes[i] = '\0';
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
  text.clear();
}

}  // namespace kiosk::text
