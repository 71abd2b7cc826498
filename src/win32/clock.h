// Time, always asked of Windows itself (never of the C++ clocks), so that the simulated Windows can move it.
#pragma once

#include "win32/winapi.h"

#include <cstdint>

namespace kiosk::win32 {

// 100 ns units, as FILETIME and the unbiased interrupt time count.
inline constexpr std::uint64_t kFileTimeMillisecond = 10'000;
inline constexpr std::uint64_t kFileTimeSecond = 1000 * kFileTimeMillisecond;

// Milliseconds since Windows started.
inline std::uint64_t TickCount() noexcept { return GetTickCount64(); }

// Milliseconds since Windows started without those in which the computer slept.
inline std::uint64_t AwakeMilliseconds() noexcept {
  ULONGLONG units = 0;
  QueryUnbiasedInterruptTime(&units);
  return units / kFileTimeMillisecond;
}

inline std::uint64_t FileTimeValue(const FILETIME& time) noexcept {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

inline FILETIME ToFileTime(std::uint64_t value) noexcept {
  return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

// Milliseconds since 1970 (UTC) of a time in 100 ns units since 1601.
constexpr std::uint64_t UnixMilliseconds(std::uint64_t fileTime) noexcept {
  constexpr std::uint64_t kFrom1601To1970 = 11'644'473'600;  // s
  return fileTime / kFileTimeMillisecond - 1000 * kFrom1601To1970;
}

// The system time (UTC) in 100 ns units since 1601.
inline std::uint64_t FileTimeNow() noexcept {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return FileTimeValue(now);
}

// The same, finer than a clock tick and never simulated: for comparison with the times that Windows gives its
// processes.
inline std::uint64_t PreciseFileTimeNow() noexcept {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  return FileTimeValue(now);
}

// When Windows started, counted back from the present system time: setting the clock moves it.
inline std::uint64_t WindowsStartedAt() noexcept { return FileTimeNow() - TickCount() * kFileTimeMillisecond; }

// A moment by which a longer operation must be over.
class Deadline {
 public:
  explicit Deadline(std::uint64_t milliseconds) noexcept : end_(TickCount() + milliseconds) {}

  // Milliseconds left, 0 when it has passed; never INFINITE.
  [[nodiscard]] DWORD Left() const noexcept {
    const std::uint64_t now = TickCount();
    if (now >= end_) {
      return 0;
    }
    const std::uint64_t left = end_ - now;
    return left < INFINITE ? static_cast<DWORD>(left) : INFINITE - 1;
  }
  [[nodiscard]] bool Passed() const noexcept { return Left() == 0; }

 private:
  std::uint64_t end_;
};

}  // namespace kiosk::win32
