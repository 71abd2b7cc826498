// The system's random generator, which a test may replace for a scope.
#pragma once

#include <cstddef>
#include <functional>

namespace sim {

class RandomScript {
 public:
  // Fills the buffer; false: the generator refuses.
  using Fill = std::function<bool(unsigned char* buffer, std::size_t size)>;
  explicit RandomScript(Fill fill);
  RandomScript(const RandomScript&) = delete;
  RandomScript& operator=(const RandomScript&) = delete;
  ~RandomScript();
};

}  // namespace sim
