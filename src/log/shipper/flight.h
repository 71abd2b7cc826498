// The records that left the ring and are neither sent nor in the spool yet. The sender's thread alone changes them;
// whoever stops it while it is stuck in a request takes a copy, and from then on they are his.
#pragma once

#include "win32/lock.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

class Flight {
 public:
  // Whole lines. For the sender's thread, which may look without a lock at what nobody else changes.
  [[nodiscard]] std::string_view Lines() const noexcept { return lines_; }

  // Swaps the lines for these; false, and nothing is done, when they were taken over.
  bool Swap(std::string& lines) noexcept {
    const win32::LockGuard guard(lock_);
    if (!taken_) {
      lines_.swap(lines);
    }
    return !taken_;
  }

  bool Clear() noexcept {
    std::string none;
    return Swap(none);
  }

  // The first `bytes` are done with; as above.
  bool Shorten(std::size_t bytes) noexcept {
    const win32::LockGuard guard(lock_);
    if (!taken_) {
      lines_.erase(0, bytes);
    }
    return !taken_;
  }

  std::string TakeOver() {
    const win32::LockGuard guard(lock_);
    taken_ = true;
    return lines_;
  }

 private:
  win32::Lock lock_{win32::LockRank::kLogRing};
  std::string lines_;
  bool taken_ GUARDED_BY(lock_) = false;
};

}  // namespace kiosk::log::shipper
