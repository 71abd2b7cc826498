#pragma once

namespace kiosk::power {

// The body of the awake thread. After a wake by timer Windows puts a computer that nobody touches to sleep again when
// its unattended idle time-out ends, two minutes at least, whatever the scheme says. So while the schedule wants the
// computer awake this holds a request that the system is required; nothing of the scheme changes. It looks at once and
// then once a minute, and returns, with nothing held any more, when the service is to stop.
void AwakeThread();

}  // namespace kiosk::power
