// The program as its own installer, run by an administrator from the command line.
#pragma once

namespace kiosk::service {

inline constexpr wchar_t kServiceName[] = L"NorvaneKiosk";

// Creates the service, or reconfigures the one that exists, and starts it. Exit code 0 on success (also when it could
// not be started), 1 on failure; says on standard output what happened.
int Install();

// Stops the service, takes kiosk mode down with all its state, and deletes the service. Always 0.
int Uninstall();

}  // namespace kiosk::service
