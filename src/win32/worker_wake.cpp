#include "win32/worker_wake.h"

namespace kiosk::win32 {
namespace {

// Written before other threads exist, then only read.
HANDLE wakeEvent = nullptr;

}  // namespace

bool CreateWorkerWake() noexcept {
  wakeEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  return wakeEvent != nullptr;
}

HANDLE WorkerWake() noexcept { return wakeEvent; }

void WakeWorker() noexcept {
  if (wakeEvent != nullptr) {
    SetEvent(wakeEvent);
  }
}

}  // namespace kiosk::win32
