// The Windows Time service: that it runs, and that it sets the clock.
#pragma once

namespace kiosk::timesync {

// Starts the service unless it runs, for which a disabled one becomes one that is started on demand. False, with a line
// in the log, when it does not run. Takes at most 15 s and ends early on a stop.
bool RunTimeService();

// Has the running service synchronise the clock now. False when neither of the two ways to ask for that works. Takes at
// most 50 s (30 for the call, 20 for the program) and ends early on a stop.
bool Resynchronise();

}  // namespace kiosk::timesync
