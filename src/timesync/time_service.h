// The Windows Time service: that it runs, and that it sets the clock.
#pragma once

namespace kiosk::timesync {

// Starts the service unless it runs; a disabled one is first made one that starts on demand. False, with a line in the
// log, when it does not run. Takes at most 15 s, unless the service manager itself needs longer for the start. Ends
// early on a stop.
bool RunTimeService();

// Two ways to have the running service synchronise the clock now. False, with a line in the log, when that way does not
// work. Both end early on a stop.
//
// By a call of the service. True says only that the attempt is over, not that it set the clock. Takes at most 30 s.
bool CallSyncNow();
// By Windows' own program, which tells the outcome. Takes at most 20 s.
bool RunW32tm();

}  // namespace kiosk::timesync
