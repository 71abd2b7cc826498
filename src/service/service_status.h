// The state of this service as the service manager sees it. Reports come from the service thread and from the control
// handler; a lock keeps them in order, so that "stop pending" never follows "stopped".
#pragma once

#include "win32/winapi.h"

namespace kiosk::service {

// Registers `handler` for controls. False when the service manager refuses.
bool RegisterControls(const wchar_t* serviceName, LPHANDLER_FUNCTION_EX handler) noexcept;

void ReportStartPending() noexcept;  // 30 s, no controls
void ReportRunning() noexcept;       // stop, shutdown and session changes are accepted
void ReportStopPending() noexcept;   // 45 s
void ReportStopped() noexcept;       // nothing can be reported after it

}  // namespace kiosk::service
