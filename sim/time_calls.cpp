// The calls of Windows that tell time, wait, signal and start threads.
#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/machine.h"
#include "sim/seam.h"

#include <atomic>
#include <cwchar>
#include <string>

using namespace sim;

extern "C" void WINAPI sim_GetSystemTimeAsFileTime(LPFILETIME time);

namespace {

FILETIME ToFileTime(std::uint64_t value) { return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)}; }

std::uint64_t RunningTicks() { return ClockIsVirtual() ? VirtualTicks() : ::GetTickCount64(); }

// What the running count stood at when the simulated computer started last.
std::atomic<std::uint64_t>& TicksAtStart() {
  static std::atomic<std::uint64_t> ticks =
      std::wcstoull(ReadText(L"", L"TicksAtStart").value_or(L"0").c_str(), nullptr, 10);
  return ticks;
}

}  // namespace

std::uint64_t sim::FileTimeOf(int year, int month, int day, int hour, int minute, int second) {
  const SYSTEMTIME parts{
      static_cast<WORD>(year),   static_cast<WORD>(month),  0, static_cast<WORD>(day), static_cast<WORD>(hour),
      static_cast<WORD>(minute), static_cast<WORD>(second), 0};
  FILETIME time{};
  if (!SystemTimeToFileTime(&parts, &time)) {
    Violation("%d-%d-%d %d:%d:%d is no moment", year, month, day, hour, minute, second);
  }
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

void sim::TicksStartAnew() {
  TicksAtStart() = RunningTicks();
  if (!ClockIsVirtual()) {
    WriteText(L"", L"TicksAtStart", std::to_wstring(RunningTicks()));
  }
}

std::uint64_t sim::UtcTime() {
  FILETIME now{};
  sim_GetSystemTimeAsFileTime(&now);
  return (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

SIM(ULONGLONG, GetTickCount64, ) {
  const std::uint64_t now = RunningTicks();
  const std::uint64_t start = TicksAtStart();
  return now >= start ? now - start : now;
}

// Its page: in units of 100 ns, without the time in which the computer slept (sleptSeconds).
SIM(WINBOOL, QueryUnbiasedInterruptTime, PULONGLONG time) {
  *time = (RunningTicks() - sleptSeconds.Get() * 1000ULL) * 10'000;
  return TRUE;
}

SIM(void, GetSystemTimeAsFileTime, LPFILETIME time) {
  if (ClockIsVirtual()) {
    *time = ToFileTime(VirtualUtc());
  } else {
    ::GetSystemTimeAsFileTime(time);
  }
}

SIM(void, GetSystemTime, LPSYSTEMTIME time) {
  if (ClockIsVirtual()) {
    const FILETIME now = ToFileTime(VirtualUtc());
    FileTimeToSystemTime(&now, time);
  } else {
    ::GetSystemTime(time);
  }
}

SIM(void, GetLocalTime, LPSYSTEMTIME time) {
  if (ClockIsVirtual()) {
    const std::int64_t local = static_cast<std::int64_t>(VirtualUtc()) - std::int64_t{VirtualBias()} * 600'000'000;
    const FILETIME now = ToFileTime(static_cast<std::uint64_t>(local));
    FileTimeToSystemTime(&now, time);
  } else {
    ::GetLocalTime(time);
  }
}

SIM(DWORD, WaitForSingleObject, HANDLE object, DWORD milliseconds) { return Wait(object, milliseconds); }

SIM(DWORD, WaitForMultipleObjects, DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds) {
  return WaitMany(count, objects, all, milliseconds);
}

SIM(void, Sleep, DWORD milliseconds) {
  if (ClockIsVirtual() && milliseconds != 0) {
    SleepVirtually(milliseconds);
  } else {
    ::Sleep(milliseconds);
  }
}

SIM(BOOL, SetEvent, HANDLE event) {
  const BOOL set = ::SetEvent(event);
  LockReleased();
  return set;
}

SIM(HANDLE, CreateThread, LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE body, LPVOID argument,
    DWORD flags, LPDWORD id) {
  if (!ClockIsVirtual()) {
    return ::CreateThread(security, stack, body, argument, flags, id);
  }
  std::unique_ptr<Start> start = Starting(body, argument, true);
  HANDLE thread = ::CreateThread(security, stack, RunStarted, start.get(), flags, id);
  if (thread == nullptr) {
    NotStarted(*start);
  } else {
    static_cast<void>(start.release());
  }
  return thread;
}
