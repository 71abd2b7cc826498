#include "win32/stop.h"

#include "win32/clock.h"

#include <algorithm>
#include <atomic>

namespace kiosk::win32 {
namespace {

constexpr std::uint64_t kStopBudget = 40'000;

// Written before other threads exist, then only read. The handle lives as long as the process: detached threads may
// wait on it until the very end.
HANDLE stopEvent = nullptr;
// Tick count of the first stop request, 0 before it. The control handler writes, any thread reads.
std::atomic<std::uint64_t> stopAt{0};

}  // namespace

bool CreateStopEvent() noexcept {
  stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return stopEvent != nullptr;
}

void RequestStop() noexcept {
  std::uint64_t none = 0;
  stopAt.compare_exchange_strong(none, TickCount() | 1U);
  if (stopEvent != nullptr) {
    SetEvent(stopEvent);
  }
}

bool StopRequested() noexcept { return stopAt.load() != 0; }

HANDLE StopEvent() noexcept { return stopEvent; }

DWORD StopBudgetLeft() noexcept {
  const std::uint64_t since = stopAt.load();
  const std::uint64_t now = TickCount();
  const std::uint64_t spent = since != 0 && now > since ? now - since : 0;
  return spent < kStopBudget ? static_cast<DWORD>(kStopBudget - spent) : 0;
}

WaitResult WaitOrStop(HANDLE object, DWORD milliseconds, HANDLE end) noexcept {
  HANDLE objects[3];
  DWORD count = 0;
  for (const HANDLE each : {stopEvent, end, object}) {
    if (each != nullptr) {
      objects[count++] = each;
    }
  }
  if (count == 0) {
    Sleep(milliseconds);
    return WaitResult::kTimeout;
  }
  const DWORD result = WaitForMultipleObjects(count, objects, FALSE, milliseconds);
  if (result < WAIT_OBJECT_0 + count) {
    return objects[result - WAIT_OBJECT_0] == object ? WaitResult::kSignaled : WaitResult::kStop;
  }
  if (result != WAIT_TIMEOUT) {
    Sleep(std::min<DWORD>(milliseconds, 100));
  }
  return WaitResult::kTimeout;
}

}  // namespace kiosk::win32
