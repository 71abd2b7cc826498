// However a request is cut into pieces, reading ends where the naive rule ends it, with the same request.
#include "json/parse.h"
#include "pipe/framing.h"
#include "text/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using namespace kiosk::pipe;

// Feeds `sent` in pieces whose sizes `nextSize` chooses (each cut to the room there is), and looks at the whole text
// again after each of them.
template <typename NextSize>
void RequireNaiveFraming(std::string_view sent, NextSize nextSize) {
  RequestBuffer buffer;
  std::string naive;
  bool over = false;
  while (!over && naive.size() < sent.size()) {
    const std::span<char> room = buffer.Room();
    if (buffer.Over() || room.size() != kReadChunk) {
      std::abort();
    }
    const std::size_t count = std::min<std::size_t>({nextSize(), sent.size() - naive.size(), room.size()});
    std::memcpy(room.data(), sent.data() + naive.size(), count);
    naive.append(sent.substr(naive.size(), count));
    buffer.Added(count);
    over = naive.size() >= kRequestLimit || naive.find('\n') != std::string::npos ||
           kiosk::json::Parse(kiosk::text::TrimSpace(naive)).has_value();
  }
  if (buffer.Over() != over || buffer.Room().empty() != over || buffer.Request() != kiosk::text::TrimSpace(naive)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string sent(reinterpret_cast<const char*>(data), size);
  for (std::size_t each = 1; size <= 64 && each <= size + 1; ++each) {
    RequireNaiveFraming(sent, [each] { return each; });
  }
  // Pieces of any size, of a text that may be doubled a few times to get past the limit.
  std::uint32_t seed = size == 0 ? 0 : data[size - 1];
  for (unsigned doubling = 0; doubling < (seed & 7U); ++doubling) {
    sent += sent;
  }
  RequireNaiveFraming(sent, [&seed] {
    seed = seed * 1664525U + 1013904223U;
    return 1 + ((seed & 0x10000U) != 0 ? seed >> 28U : seed >> 22U);
  });
  return 0;
}
