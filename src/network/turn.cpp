#include "network/turn.h"

#include "win32/clock.h"
#include "win32/stop.h"

#include <atomic>

namespace kiosk::network {
namespace {

constexpr DWORD kPoll = 100;

// Whether somebody has the turn. Connection threads, the worker, a teardown, and whoever asked the portal come here.
std::atomic<bool> taken{false};

}  // namespace

Turn::Turn(std::uint64_t wait) {
  const win32::Deadline deadline(wait);
  while (!(mine_ = !taken.exchange(true))) {
    if (deadline.Passed() || win32::WaitOrStop(nullptr, kPoll) == win32::WaitResult::kStop) {
      return;
    }
  }
}

Turn::~Turn() {
  if (mine_) {
    taken = false;
  }
}

}  // namespace kiosk::network
