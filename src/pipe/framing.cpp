#include "pipe/framing.h"

#include "json/parse.h"
#include "text/text.h"

#include <algorithm>
#include <atomic>
#include <optional>

namespace kiosk::pipe {
namespace {

bool IsCompleteValue(std::string_view text) {
  std::optional<json::Value> value = json::Parse(text);
  if (value) {
    value->Wipe();
  }
  return value.has_value();
}

}  // namespace

RequestBuffer::~RequestBuffer() {
  volatile char* bytes = bytes_.data();
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    bytes[i] = '\0';
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

std::span<char> RequestBuffer::Room() noexcept {
  return Over() ? std::span<char>() : std::span<char>(bytes_).subspan(size_, kReadChunk);
}

void RequestBuffer::Added(std::size_t count) {
  size_ += count;
  for (; scanned_ < size_; ++scanned_) {
    newline_ = newline_ || bytes_[scanned_] == '\n';
    Scan(bytes_[scanned_]);
  }
  // A text that parses ends where its one value ends, so that a string, an array or an object is parsed once at most,
  // however many pieces it comes in.
  const std::string_view text = Request();
  const auto end = static_cast<std::size_t>(text.data() + text.size() - bytes_.data());
  if (!Over() && begun_ && end != triedEnd_ && (scalar_ || end == valueEnd_)) {
    triedEnd_ = end;
    complete_ = IsCompleteValue(text);
  }
}

// Follows brackets and strings just far enough to see where the first value ends, if the text is well formed at all.
void RequestBuffer::Scan(char byte) noexcept {
  if (scalar_ || valueEnd_ != 0 || (!begun_ && text::IsSpace(byte))) {
    return;
  }
  if (inText_) {
    inText_ = escaped_ || byte != '"';
    escaped_ = !escaped_ && byte == '\\';
  } else if (byte == '"') {
    inText_ = true;
  } else if (byte == '{' || byte == '[') {
    ++depth_;
  } else if (byte == '}' || byte == ']') {
    depth_ = std::max(depth_ - 1, 0);
  } else if (!begun_) {
    scalar_ = true;
  }
  begun_ = true;
  if (depth_ == 0 && !inText_ && !scalar_) {
    valueEnd_ = scanned_ + 1;
  }
}

std::string_view RequestBuffer::Request() const noexcept { return text::TrimSpace({bytes_.data(), size_}); }

}  // namespace kiosk::pipe
