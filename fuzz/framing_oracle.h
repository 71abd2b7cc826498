// The framing rule applied naively: after every piece the whole text is looked at again.
#pragma once

#include "json/parse.h"
#include "pipe/framing.h"
#include "text/text.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace kiosk::pipe {

// Feeds `sent` in pieces whose sizes `nextSize` chooses (each cut to the room there is). True when the buffer ended
// reading after the same piece as the naive rule, holding the same request.
template <typename NextSize>
bool AgreesWithNaiveFraming(std::string_view sent, NextSize nextSize) {
  RequestBuffer buffer;
  std::string naive;
  bool over = false;
  while (!over && naive.size() < sent.size()) {
    const std::span<char> room = buffer.Room();
    if (buffer.Over() || room.size() != kReadChunk) {
      return false;
    }
    const std::size_t count = std::min<std::size_t>({nextSize(), sent.size() - naive.size(), room.size()});
    std::memcpy(room.data(), sent.data() + naive.size(), count);
    naive.append(sent.substr(naive.size(), count));
    buffer.Added(count);
    over = naive.size() >= kRequestLimit || naive.find('\n') != std::string::npos ||
           json::Parse(text::TrimSpace(naive)).has_value();
  }
  return buffer.Over() == over && buffer.Room().empty() == over && buffer.Request() == text::TrimSpace(naive);
}

}  // namespace kiosk::pipe
