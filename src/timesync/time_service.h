// The Windows Time service: that it runs, and that it sets the clock.
#pragma once

namespace kiosk::timesync {

// Starts the service unless it runs, for which a disabled one becomes one that is started on demand. False, with a line
// in the log, when it does not run. Ends early on a stop; waits at most 15 s from the start on, for as long as the
// service manager itself takes at least.
bool RunTimeService();

// Two ways to have the running service synchronise the clock now. False, with a line in the log, when that way does not
// work. Both end early on a stop.
//
// A call of the service. True says no more than that the attempt is over; whether it set the clock is not told. Takes
// at most 30 s.
bool CallSyncNow();
// Windows' own program, which tells the outcome. Takes at most 20 s.
bool RunW32tm();

}  // namespace kiosk::timesync
