#include "text/text.h"

#include <algorithm>
#include <atomic>

namespace kiosk::text {
namespace {

constexpr bool IsContinuation(char byte) noexcept { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// Length that a lead byte announces; 1 for anything else.
constexpr std::size_t SequenceLength(char lead) noexcept {
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

std::string_view TrimSpace(std::string_view text) noexcept {
  while (!text.empty() && IsSpace(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && IsSpace(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

std::size_t CutLength(std::string_view text, std::size_t limit) noexcept {
  if (text.size() <= limit) {
    return text.size();
  }
  // Only a lead byte among the last three before the cut can own a sequence that the cut would split.
  for (std::size_t back = 1; back <= 3 && back <= limit; ++back) {
    const char byte = text[limit - back];
    if (!IsContinuation(byte)) {
      return SequenceLength(byte) > back ? limit - back : limit;
    }
  }
  return limit;
}

void MakeSingleLine(char* text, std::size_t length) noexcept {
  for (std::size_t i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = [&](std::size_t ahead) {
      return i + ahead < length ? static_cast<unsigned char>(text[i + ahead]) : 0U;
    };
    std::size_t replaced = 0;
    if (byte < 0x20U || byte == 0x7FU) {
      replaced = 1;
    } else if (byte == 0xC2U && next(1) >= 0x80U && next(1) <= 0x9FU) {
      replaced = 2;
    } else if (byte == 0xE2U && next(1) == 0x80U && (next(2) == 0xA8U || next(2) == 0xA9U)) {
      replaced = 3;
    }
    std::fill_n(text + i, replaced, ' ');
    i += replaced > 0 ? replaced - 1 : 0;
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
