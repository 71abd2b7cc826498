#include "log/shipper/ring.h"

#include "text/text.h"
#include "win32/clock.h"
#include "win32/lock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace kiosk::log::shipper {
namespace {

constexpr std::size_t kRingSlots = 1024;
constexpr int kLowest = 7;  // what is less grave counts as that

struct Ring {
  std::array<Slot, kRingSlots> slots;
  std::size_t first = 0;  // the oldest line
  std::size_t count = 0;
  std::uint64_t nextSeq = 1;
  std::uint64_t dropped = 0;
};

// Guards the ring. Everybody who logs comes here, holding whatever he holds but a lock of this rank.
win32::Lock lock{win32::LockRank::kLogRing};
// Both written before other threads come here; kept as long as the process, which may log until it is gone.
Ring* ring PT_GUARDED_BY(lock) = nullptr;
HANDLE wakeEvent = nullptr;
std::atomic<int> accepted{-1};

void CopyLine(const Slot& from, Slot& to) noexcept { std::memcpy(&to, &from, offsetof(Slot, message) + from.length); }

}  // namespace

bool MakeRing(HANDLE wake) noexcept {
  ring = new (std::nothrow) Ring;
  wakeEvent = wake;
  return ring != nullptr;
}

void AcceptUpTo(int level) noexcept { accepted.store(level, std::memory_order_relaxed); }

void Push(int level, const char* component, std::string_view message) noexcept {
  if (std::min(level, kLowest) > accepted.load(std::memory_order_relaxed)) {
    return;
  }
  bool wake = false;
  {
    const win32::LockGuard guard(lock);
    if (ring->count == kRingSlots) {
      ring->first = (ring->first + 1) % kRingSlots;
      --ring->count;
      ++ring->dropped;
    }
    Slot& slot = ring->slots[(ring->first + ring->count) % kRingSlots];
    ++ring->count;
    slot.time = win32::FileTimeNow();
    slot.seq = ring->nextSeq++;
    slot.level = level;
    std::strncpy(slot.component.data(), component, slot.component.size() - 1);
    slot.component.back() = '\0';
    slot.length = static_cast<std::uint16_t>(text::CutLength(message, slot.message.size() - 1));
    std::memcpy(slot.message.data(), message.data(), slot.length);
    wake = ring->count == 1 || ring->count == kRingSlots / 2;
  }
  if (wake) {
    SetEvent(wakeEvent);
  }
}

bool Pop(Slot& slot, std::uint64_t& dropped) noexcept {
  const win32::LockGuard guard(lock);
  if (ring->count == 0) {
    return false;
  }
  CopyLine(ring->slots[ring->first], slot);
  ring->first = (ring->first + 1) % kRingSlots;
  --ring->count;
  dropped = ring->dropped;
  ring->dropped = 0;
  return true;
}

}  // namespace kiosk::log::shipper
