// However a request is cut into pieces, reading ends where the naive rule ends it, with the same request.
#include "framing_oracle.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  // The first byte seeds the sizes of the pieces; it may also double the text a few times, to get past the limit.
  std::uint32_t seed = data[0];
  std::string sent(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (unsigned doubling = 0; doubling < (seed & 7U); ++doubling) {
    sent += sent;
  }
  const auto nextSize = [&seed] {
    seed = seed * 1664525U + 1013904223U;
    return 1 + ((seed & 0x10000U) != 0 ? seed >> 28U : seed >> 22U);
  };
  if (!kiosk::pipe::AgreesWithNaiveFraming(sent, nextSize)) {
    std::abort();
  }
  return 0;
}
