// One thread at a time works on adapters and on the record of their changes. A lock would not hear the stop.
#pragma once

#include <cstdint>

namespace kiosk::network {

class Turn {
 public:
  // Waits at most `wait` milliseconds, and not beyond a stop.
  explicit Turn(std::uint64_t wait);
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn();
  // False: somebody else has it.
  explicit operator bool() const noexcept { return mine_; }

 private:
  bool mine_ = false;
};

}  // namespace kiosk::network
