#pragma once

namespace kiosk::service {

// Hands the thread to the service dispatcher. Returns 0 after the service has stopped, 1 when the dispatcher refuses
// (as it does for a program that was started from a console).
int RunDispatcher();

}  // namespace kiosk::service
