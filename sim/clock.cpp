#include "sim/clock.h"

#include "sim/clock_internal.h"
#include "sim/seam.h"
#include "sim/watchdog.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <utility>

namespace sim {

constexpr std::uint64_t kForever = UINT64_MAX;

// A wait in progress, on the stack of the thread that waits.
struct Waiter {
  const HANDLE* objects = nullptr;
  DWORD count = 0;
  BOOL all = FALSE;
  PSRWLOCK lock = nullptr;  // instead of objects
  bool shared = false;
  bool settles = false;  // RunUntil: ends only when nothing else is due
  std::uint64_t deadline = kForever;
  bool done = false;
  DWORD result = WAIT_TIMEOUT;
  DWORD error = 0;
  CONDITION_VARIABLE wake = CONDITION_VARIABLE_INIT;
};

// A thread that virtual time waits for.
struct Participant {
  DWORD id = 0;
  Waiter* waiter = nullptr;
  HANDLE ended = nullptr;  // its body is over; it counts as running until this handle is signaled
};

namespace {

constexpr std::uint64_t kPerMillisecond = 10'000;

// Waits that succeed and releases leave the last error alone, and callers rely on it.
struct KeepLastError {
  DWORD error = GetLastError();
  ~KeepLastError() { SetLastError(error); }
};

SRWLOCK guard = SRWLOCK_INIT;  // guards everything below; real, never a Lock of the service
struct Guarded {
  Guarded() { ::AcquireSRWLockExclusive(&guard); }
  ~Guarded() { ::ReleaseSRWLockExclusive(&guard); }
};

std::atomic<bool> on{false};
std::atomic<std::uint64_t> ticks{0};
std::uint64_t startTicks = 0;  // when virtual time began
std::uint64_t wallBase = 0;    // UTC at wallTicks
std::uint64_t wallTicks = 0;
int bias = 0;
std::multimap<std::uint64_t, std::function<void()>> actions;
std::vector<std::unique_ptr<Participant>> participants;
std::vector<Waiter*> waiters;
Participant* tester = nullptr;
bool actionTurn = false;  // the tester is to run what is due
DWORD grace = 0;
bool serial = false;
Watchdog watchdog;
std::uint64_t allWaitSince = 0;  // real time, 0: not all
thread_local Participant* self = nullptr;

void Finish(Waiter& waiter, DWORD result) {
  waiter.result = result;
  waiter.done = true;
  watchdog.Moved();
  WakeConditionVariable(&waiter.wake);
}

// Looks for a waiter on its behalf whether its wait is over and takes what it waits for. Everything is consumed here,
// under the guard, so that a thread whose wait is over counts as running before time can move.
void Poll(Waiter& waiter) {
  if (waiter.lock != nullptr) {
    if (waiter.shared ? TryAcquireSRWLockShared(waiter.lock) : TryAcquireSRWLockExclusive(waiter.lock)) {
      Finish(waiter, WAIT_OBJECT_0);
    }
  } else if (waiter.count != 0) {
    const DWORD result = ::WaitForMultipleObjects(waiter.count, waiter.objects, waiter.all, 0);
    if (result != WAIT_TIMEOUT) {
      waiter.error = GetLastError();
      Finish(waiter, result);
    }
  }
}

// Threads that are gone for good. Before any poll: what waits for their handles must see them before time moves.
void Reap() {
  std::erase_if(participants, [](const auto& participant) {
    const bool gone = participant->ended != nullptr && ::WaitForSingleObject(participant->ended, 0) == WAIT_OBJECT_0;
    if (gone) {
      CloseHandle(participant->ended);
    }
    return gone;
  });
}

bool AllWait() {
  return std::all_of(participants.begin(), participants.end(), [](const auto& participant) {
    return participant->waiter != nullptr && !participant->waiter->done;
  });
}

// Ends the waits whose time has come (one of them when threads take turns), RunUntil's only when there is no other.
bool Expire(bool settling) {
  bool any = false;
  for (Waiter* waiter : waiters) {
    if (!waiter->done && waiter->settles == settling && waiter->deadline <= ticks && !(serial && any)) {
      Finish(*waiter, WAIT_TIMEOUT);
      any = true;
    }
  }
  return any;
}

// Ends the waits for what is there by now: all of them, or the oldest when threads take turns and nobody runs.
void PollAll() {
  for (Waiter* waiter : waiters) {
    if (!waiter->done && (!serial || AllWait())) {
      Poll(*waiter);
    }
  }
}

// The heart of the clock, called under the guard whenever something may have changed.
void Settle() {
  Reap();
  PollAll();
  if (!on || actionTurn || !AllWait()) {
    allWaitSince = 0;
    return;
  }
  const std::uint64_t now = ::GetTickCount64();
  allWaitSince = allWaitSince != 0 ? allWaitSince : now;
  const auto mayEnd = [](const Waiter* each) { return each->count != 0 || each->settles; };  // not so a plain sleep
  if (now - allWaitSince < grace && std::any_of(waiters.begin(), waiters.end(), mayEnd)) {
    return;
  }
  for (;;) {
    if (!actions.empty() && actions.begin()->first <= ticks) {
      actionTurn = true;
      WakeConditionVariable(&tester->waiter->wake);
      return;
    }
    if (Expire(false) || Expire(true)) {
      allWaitSince = 0;
      return;
    }
    std::uint64_t next = actions.empty() ? kForever : actions.begin()->first;
    for (const Waiter* waiter : waiters) {
      next = waiter->done ? next : std::min(next, waiter->deadline);
    }
    if (next == kForever) {
      return;
    }
    ticks = next;
    watchdog.Moved();
  }
}

void Enlist(Waiter& waiter) {
  waiters.push_back(&waiter);
  if (self != nullptr) {
    self->waiter = &waiter;
  }
  Settle();
}

void Delist(Waiter& waiter) {
  std::erase(waiters, &waiter);
  if (self != nullptr) {
    self->waiter = nullptr;
  }
}

void RunDueAction(Waiter& waiter) {
  Delist(waiter);
  const std::function<void()> action = std::move(actions.begin()->second);
  actions.erase(actions.begin());
  actionTurn = false;
  ::ReleaseSRWLockExclusive(&guard);
  action();
  ::AcquireSRWLockExclusive(&guard);
  watchdog.Moved();
  Enlist(waiter);
}

// The test's thread gives its wait up when nothing has moved for too long.
void GiveUp(Waiter& waiter) {
  std::string who;
  for (const auto& participant : participants) {
    const Waiter* wait = participant->waiter;
    who += "; thread " + std::to_string(participant->id) + (participant.get() == tester ? " (the test)" : "");
    if (wait == nullptr || wait->done) {
      who += " runs or blocks outside of a simulated wait";
    } else {
      who += wait->lock != nullptr ? " waits for a lock" : " waits for " + std::to_string(wait->count) + " objects";
      who += wait->deadline == kForever ? ", without limit"
                                        : ", until " + std::to_string(wait->deadline - startTicks) + " ms";
    }
  }
  waiter.error = ERROR_TIMEOUT;
  Finish(waiter, WAIT_FAILED);
  Violation("virtual time stands still at %llu ms%s", static_cast<unsigned long long>(ticks - startTicks), who.c_str());
}

// A wait that began under virtual time. Ends as the call of Windows would.
DWORD WaitVirtually(Waiter& waiter, std::uint64_t milliseconds) {
  KeepLastError keep;
  ::AcquireSRWLockExclusive(&guard);
  const bool test = self != nullptr && self == tester;
  waiter.deadline = milliseconds >= INFINITE ? kForever : ticks + milliseconds;
  watchdog.Moved();
  Enlist(waiter);
  while (!waiter.done) {
    if (test && actionTurn) {
      RunDueAction(waiter);
    } else if (!SleepConditionVariableSRW(&waiter.wake, &guard, test ? 1 : 10, 0)) {
      Settle();
      if (test && !waiter.done && watchdog.Barks()) {
        GiveUp(waiter);
      }
    }
  }
  Delist(waiter);
  ::ReleaseSRWLockExclusive(&guard);
  keep.error = waiter.result == WAIT_FAILED ? waiter.error : keep.error;
  return waiter.result;
}

std::uint64_t UtcNow() {
  const Guarded lock;
  return wallBase + (ticks - wallTicks) * kPerMillisecond;
}

Participant* Join() {
  const Guarded lock;
  return participants.emplace_back(std::make_unique<Participant>()).get();
}

// `ended` null: gone at once.
void Leave(Participant* participant, HANDLE ended) {
  const KeepLastError keep;
  const Guarded lock;
  participant->ended = ended;
  if (ended == nullptr) {
    std::erase_if(participants, [participant](const auto& each) { return each.get() == participant; });
  }
  Settle();
}

}  // namespace

bool TouchClock() { return self == nullptr; }

VirtualClock::VirtualClock(std::uint64_t startUtc, int biasMinutes, std::uint64_t upFor) {
  self = tester = Join();
  tester->id = GetCurrentThreadId();
  ticks = wallTicks = startTicks = upFor;
  wallBase = startUtc;
  bias = biasMinutes;
  grace = 0;
  watchdog = {};
  watchdog.Moved();
  on = true;
}

VirtualClock::~VirtualClock() {
  const Guarded lock;
  on = serial = false;
  actions.clear();
  std::erase_if(participants, [](const auto& participant) { return participant.get() == tester; });
  self = tester = nullptr;
  for (Waiter* waiter : waiters) {
    if (!waiter->done && waiter->deadline != kForever) {
      Finish(*waiter, WAIT_TIMEOUT);
    }
  }
}

void VirtualClock::At(std::uint64_t milliseconds, std::function<void()> action) {
  const Guarded lock;
  actions.emplace(startTicks + milliseconds, std::move(action));
}

void VirtualClock::RunUntil(std::uint64_t milliseconds) {
  const std::uint64_t elapsed = Elapsed();
  Waiter waiter;
  waiter.settles = true;
  WaitVirtually(waiter, milliseconds > elapsed ? milliseconds - elapsed : 0);
}

std::uint64_t VirtualClock::Elapsed() const { return ticks - startTicks; }

std::uint64_t VirtualClock::SystemTime() const { return UtcNow(); }

void VirtualClock::SetSystemTime(std::uint64_t utc) {
  const Guarded lock;
  wallBase = utc;
  wallTicks = ticks;
}

void StepSystemTime(std::int64_t milliseconds) {
  const Guarded lock;
  wallBase += static_cast<std::uint64_t>(milliseconds) * kPerMillisecond;
}

void VirtualClock::SetBias(int minutes) {
  const Guarded lock;
  bias = minutes;
}

void VirtualClock::SetGrace(DWORD realMilliseconds) { grace = realMilliseconds; }

void VirtualClock::SetPatience(DWORD milliseconds) { watchdog.patience = milliseconds; }

void VirtualClock::Serialise() { serial = true; }

bool ClockIsVirtual() { return on; }
std::uint64_t VirtualTicks() { return ticks; }
std::uint64_t VirtualUtc() { return UtcNow(); }
int VirtualBias() { return bias; }

DWORD WaitMany(DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds) {
  if (!on || milliseconds == 0) {
    return ::WaitForMultipleObjects(count, objects, all, milliseconds);
  }
  Waiter waiter;
  waiter.objects = objects;
  waiter.count = count;
  waiter.all = all;
  return WaitVirtually(waiter, milliseconds);
}

DWORD Wait(HANDLE object, DWORD milliseconds) {
  return on && milliseconds != 0 ? WaitMany(1, &object, FALSE, milliseconds)
                                 : ::WaitForSingleObject(object, milliseconds);
}

void SleepVirtually(DWORD milliseconds) {
  Waiter waiter;
  WaitVirtually(waiter, milliseconds);
}

void Signal(HANDLE event) {
  ::SetEvent(event);
  LockReleased();
}

void AcquireLock(PSRWLOCK lock, bool shared) {
  if (!on) {
    shared ? ::AcquireSRWLockShared(lock) : ::AcquireSRWLockExclusive(lock);
  } else if (!(shared ? TryAcquireSRWLockShared(lock) : TryAcquireSRWLockExclusive(lock))) {
    Waiter waiter;
    waiter.lock = lock;
    waiter.shared = shared;
    WaitVirtually(waiter, INFINITE);
  }
}

void LockReleased() {
  if (on) {
    const KeepLastError keep;
    const Guarded lock;
    Settle();
  }
}

std::unique_ptr<Start> Starting(LPTHREAD_START_ROUTINE body, void* argument, bool ownThread) {
  return std::make_unique<Start>(Start{body, argument, on ? Join() : nullptr, ownThread});
}

void NotStarted(const Start& start) { Leave(start.participant, nullptr); }

DWORD WINAPI RunStarted(void* raw) {
  const std::unique_ptr<Start> start(static_cast<Start*>(raw));
  self = start->participant;
  self->id = GetCurrentThreadId();
  if (serial) {
    SleepVirtually(0);
  }
  const DWORD code = start->body(start->argument);
  HANDLE ended = nullptr;
  if (start->ownThread) {
    DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &ended, SYNCHRONIZE, FALSE, 0);
  }
  Leave(std::exchange(self, nullptr), ended);
  return code;
}

std::uint64_t ClockNow() { return on ? ticks - startTicks : ::GetTickCount64(); }

}  // namespace sim
