// Slim locks with the order of their ranks checked. Every SRW lock of the service is the first member of a
// kiosk::win32::Lock.
#include "sim/clock.h"
#include "sim/seam.h"
#include "sim/threads.h"
#include "win32/lock.h"

#include <algorithm>

namespace sim {
namespace {

struct Held {
  PSRWLOCK lock;
  bool shared;
  bool real;  // false: taking it again would have blocked for ever
};

constexpr int kMostHeld = 16;
thread_local Held held[kMostHeld];
thread_local int heldCount = 0;

int RankOf(const SRWLOCK* lock) { return static_cast<int>(kiosk::win32::Lock::Of(lock).Rank()); }

void Acquire(PSRWLOCK lock, bool shared) {
  bool real = true;
  for (int i = 0; i < heldCount; ++i) {
    if (held[i].lock == lock) {
      Violation("thread %lu takes a lock of rank %d that it holds", GetCurrentThreadId(), RankOf(lock));
      real = false;
      break;
    }
    if (RankOf(held[i].lock) >= RankOf(lock)) {
      Violation("thread %lu takes a lock of rank %d while it holds one of rank %d", GetCurrentThreadId(), RankOf(lock),
                RankOf(held[i].lock));
    }
  }
  if (real) {
    AcquireLock(lock, shared);
  }
  if (heldCount == kMostHeld) {
    Violation("thread %lu holds more than %d locks", GetCurrentThreadId(), kMostHeld);
  } else {
    held[heldCount++] = {lock, shared, real};
  }
}

void Release(PSRWLOCK lock, bool shared) {
  for (int i = heldCount - 1; i >= 0; --i) {
    if (held[i].lock == lock && held[i].shared == shared) {
      const bool real = held[i].real;
      std::copy(held + i + 1, held + heldCount--, held + i);
      if (real) {
        shared ? ::ReleaseSRWLockShared(lock) : ::ReleaseSRWLockExclusive(lock);
        LockReleased();
      }
      return;
    }
  }
  Violation("thread %lu releases a lock of rank %d that it does not hold%s", GetCurrentThreadId(), RankOf(lock),
            shared ? " shared" : "");
}

}  // namespace

bool TouchLocks() { return heldCount == 0 && held[0].lock == nullptr; }
}  // namespace sim

SIM(void, AcquireSRWLockExclusive, PSRWLOCK lock) { sim::Acquire(lock, false); }
SIM(void, AcquireSRWLockShared, PSRWLOCK lock) { sim::Acquire(lock, true); }
SIM(void, ReleaseSRWLockExclusive, PSRWLOCK lock) { sim::Release(lock, false); }
SIM(void, ReleaseSRWLockShared, PSRWLOCK lock) { sim::Release(lock, true); }
