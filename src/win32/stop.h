// The stop event of the service. Every long wait in the program hears it. One-shot runs of the same program
// ("--uninstall") never create it, and then nothing ever asks to stop.
#pragma once

#include "win32/winapi.h"

namespace kiosk::win32 {

// Creates the event, manual reset and clear. Called once, before any other thread of the service exists.
// False when Windows refuses; the last error says why.
bool CreateStopEvent() noexcept;

// Set by the control handler; never reset.
void RequestStop() noexcept;

[[nodiscard]] bool StopRequested() noexcept;

// The event, or null in a one-shot run.
[[nodiscard]] HANDLE StopEvent() noexcept;

// Milliseconds that the stop sequence may still spend on waiting for threads and connections: 40 s from the moment
// the stop was requested, all joins and waits taken together. Without a stop request the whole budget.
[[nodiscard]] DWORD StopBudgetLeft() noexcept;

enum class WaitResult { kSignaled, kStop, kTimeout };

// Waits for `object` (null: for time alone), the stop event or the time, whichever comes first. The stop wins over an
// object that is signaled at the same moment. `end` is an event of the caller's that ends the wait as a stop does;
// null: none. A wait that Windows refuses counts as a time-out after 100 ms at the most, so that a loop around it
// cannot spin.
[[nodiscard]] WaitResult WaitOrStop(HANDLE object, DWORD milliseconds, HANDLE end = nullptr) noexcept;

}  // namespace kiosk::win32
