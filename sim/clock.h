// Time and waits of the simulated Windows.
//
// Real time unless a VirtualClock exists. Under virtual time nobody sleeps: a timed wait registers its deadline, and
// when every registered thread waits, the clock jumps to the earliest deadline or scheduled action. Registered are the
// thread that made the clock and what the service starts through CreateThread and QueueUserWorkItem. A thread that
// waits for a lock counts as waiting; one in any other call (a real read, std::mutex) counts as running and holds the
// time. Kernel objects are real and may be signaled from anywhere; a mutex may be waited for with a time of 0 only.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <functional>

namespace sim {

// 100 ns units since 1601 of a moment in UTC.
std::uint64_t FileTimeOf(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// Virtual time for a scope; one at a time, on the thread of the test.
class VirtualClock {
 public:
  // `startUtc` as FileTimeOf; `biasMinutes` = UTC - local time (-60 in Warsaw in winter); `upFor` = ms since Windows
  // started, at least 1.
  explicit VirtualClock(std::uint64_t startUtc, int biasMinutes = 0, std::uint64_t upFor = 600'000);
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;
  // Timed waits in progress end as timed out; others go on.
  ~VirtualClock();

  // Runs `action` on the test's thread, inside whatever wait it then is in, when `milliseconds` since the start of
  // virtual time are reached, before any wait that ends at the same moment.
  void At(std::uint64_t milliseconds, std::function<void()> action);
  // Lets time pass. Returns when everything due by then has run and every other registered thread waits again. When
  // nothing moves for too long (threads that run or block outside of a simulated wait), a violation names them.
  void RunUntil(std::uint64_t milliseconds);
  void RunFor(std::uint64_t milliseconds) { RunUntil(Elapsed() + milliseconds); }

  [[nodiscard]] std::uint64_t Elapsed() const;     // ms since the start
  [[nodiscard]] std::uint64_t SystemTime() const;  // UTC
  void SetSystemTime(std::uint64_t utc);           // the tick count goes on
  void SetBias(int minutes);                       // daylight saving begins or ends

  // For tests with real pipes or files in flight: the clock jumps only after all threads have waited for so long in
  // real time, or when they all just sleep. 0 at first.
  void SetGrace(DWORD realMilliseconds);
  // How long nothing may move: so much processor time, used by this process or left idle. 20 s at first.
  void SetPatience(DWORD milliseconds);
  // From now on one registered thread runs at a time: whose wait is over, or who begins, goes on when all others wait.
  // In which order things happen then depends on nothing but what is done.
  void Serialise();
};

// For the simulation's own functions: a wait, a signal and a blocking lock under either time.
DWORD Wait(HANDLE object, DWORD milliseconds);
void Signal(HANDLE event);
void AcquireLock(PSRWLOCK lock, bool shared);
void LockReleased();
// Milliseconds since virtual time began, or the real tick count.
std::uint64_t ClockNow();
std::uint64_t UtcTime();  // 100 ns units since 1601
// The computer starts: its tick count begins at 0. Kept for processes to come while time is real.
void TicksStartAnew();

}  // namespace sim
