#pragma once

namespace kiosk::updates {

// The body of the window thread: looks once a minute whether the maintenance window is open, runs the updates in it,
// waits while somebody uses the terminal, and restarts it when that is owed. Returns when the service is to stop.
void UpdateWindowThread();

}  // namespace kiosk::updates
