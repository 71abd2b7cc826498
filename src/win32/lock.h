// Mutexes with a rank. A thread may take a lock only when its rank is above that of every lock it holds, so no two
// threads can wait for each other. The release build trusts the order; the simulated Windows checks it on every
// acquisition and release. Leaf locks are never held across a network, COM or session call.
#pragma once

#include "win32/thread_safety.h"
#include "win32/winapi.h"

namespace kiosk::win32 {

enum class LockRank : int {
  kPairing = 10,
  kAccount = 20,
  kBrandingRun = 25,
  kBranding = 30,
  kPower = 40,
  kUpdatesPolicy = 50,
  kLeaf = 100,     // guards a few variables; takes no other leaf, but may read state and log
  kLog = 200,      // any thread may log while it holds any other lock
  kLogFile = 210,  // one line on its way into one file
  kLogRing = 220,  // lines on their way to the central log, for a copy
};

// An SRW lock: constant-initialised and without a destructor, so that it may be static while detached threads outlive
// main. Not recursive.
class CAPABILITY("lock") Lock {
 public:
  constexpr explicit Lock(LockRank rank) noexcept : rank_(rank) {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Acquire() noexcept ACQUIRE() { AcquireSRWLockExclusive(&srw_); }
  void Release() noexcept RELEASE() { ReleaseSRWLockExclusive(&srw_); }
  void AcquireShared() noexcept ACQUIRE_SHARED() { AcquireSRWLockShared(&srw_); }
  void ReleaseShared() noexcept RELEASE() { ReleaseSRWLockShared(&srw_); }

  // The lock that embeds `srw`. Every SRW lock of this program is the first member of a Lock.
  static const Lock& Of(const SRWLOCK* srw) noexcept { return *reinterpret_cast<const Lock*>(srw); }
  [[nodiscard]] LockRank Rank() const noexcept { return rank_; }

 private:
  SRWLOCK srw_ = SRWLOCK_INIT;
  LockRank rank_;
};

// Holds a lock for a scope; Unlock ends it earlier.
class SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(Lock& lock) noexcept ACQUIRE(lock) : lock_(&lock) { lock.Acquire(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;
  ~LockGuard() RELEASE() { Unlock(); }

  // Which of the two lets go is not known to the compiler's analysis.
  void Unlock() noexcept RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    if (lock_ != nullptr) {
      lock_->Release();
      lock_ = nullptr;
    }
  }

 private:
  Lock* lock_;
};

class SCOPED_CAPABILITY SharedLockGuard {
 public:
  explicit SharedLockGuard(Lock& lock) noexcept ACQUIRE_SHARED(lock) : lock_(lock) { lock_.AcquireShared(); }
  SharedLockGuard(const SharedLockGuard&) = delete;
  SharedLockGuard& operator=(const SharedLockGuard&) = delete;
  ~SharedLockGuard() RELEASE() { lock_.ReleaseShared(); }

 private:
  Lock& lock_;
};

}  // namespace kiosk::win32
