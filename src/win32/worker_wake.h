// The event that makes the worker run a check-in at once.
#pragma once

#include "win32/winapi.h"

namespace kiosk::win32 {

// Creates it, auto reset and clear. Called once, before the worker exists. False when Windows refuses.
bool CreateWorkerWake() noexcept;

// Null before it was created (a one-shot run has no worker).
[[nodiscard]] HANDLE WorkerWake() noexcept;

void WakeWorker() noexcept;

}  // namespace kiosk::win32
