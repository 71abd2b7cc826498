// Tells a thread that hangs from one that gets no processor. Real time alone would not: on a busy computer a thread
// that nothing is wrong with may be away for minutes.
#pragma once

#include <cstdint>

namespace sim {

class Watchdog {
 public:
  void Moved();
  // Asked often while nothing moves: whether since then what this process used and what the processors idled, on
  // average, make `patience` milliseconds.
  bool Barks();

  std::uint64_t patience = 20'000;

 private:
  std::uint64_t lastMove_ = 0;   // real time
  std::uint64_t quietFrom_ = 0;  // in processor time; 0: not long without a move
};

}  // namespace sim
