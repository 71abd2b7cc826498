// What the two scheduled tasks run: short-lived processes of this program, apart from the service. On a computer that
// is not enrolled they only remove the tasks, which Windows kept when kiosk mode ended.
#pragma once

namespace kiosk::power {

// "--sleep-now": puts the computer to sleep, unless a stream session is live on it or the schedule's time to sleep is
// more than 10 minutes ago. The exit code: 0, or 1 when Windows refused. Logs as the service does.
int SleepNow();

// "--wake-now": by the time this runs the timer has woken the computer; turns the display on. Always 0, and logs
// nothing but such a removal.
int WakeNow();

}  // namespace kiosk::power
