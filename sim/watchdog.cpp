#include "sim/watchdog.h"

#include "sim/seam.h"
#include "win32/winapi.h"

namespace sim {
namespace {

std::uint64_t Number(const FILETIME& time) {
  return static_cast<std::uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

// Milliseconds that this process has used, and that the processors idled on average.
std::uint64_t ProcessorTime() {
  FILETIME made, ended, kernel, user, idle;
  if (!GetProcessTimes(GetCurrentProcess(), &made, &ended, &kernel, &user) ||
      !GetSystemTimes(&idle, nullptr, nullptr)) {
    Violation("no times of the processor (%lu)", GetLastError());
    return 0;
  }
  return (Number(kernel) + Number(user) + Number(idle) / GetActiveProcessorCount(ALL_PROCESSOR_GROUPS)) / 10'000;
}

}  // namespace

void Watchdog::Moved() {
  lastMove_ = ::GetTickCount64();
  quietFrom_ = 0;
}

bool Watchdog::Barks() {
  if (::GetTickCount64() - lastMove_ < patience / 4) {  // to ask for the times at each step would slow the others down
    return false;
  }
  const std::uint64_t now = ProcessorTime();
  if (quietFrom_ == 0) {
    quietFrom_ = now;
  }
  return now - quietFrom_ >= patience;
}

}  // namespace sim
