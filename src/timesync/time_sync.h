// The command "time.sync".
#pragma once

#include "command/request.h"

namespace kiosk::timesync {

// Makes Windows synchronise the clock. Measures how far the clock was out and, since Windows does not tell, whether it
// was set. Errors: "sync_failed", "unreachable"; these replies name the server, too. Takes at most 105 s, unless the
// service manager needs longer for a start, and ends early on a stop.
json::Value TimeSync(const command::Request& request);

}  // namespace kiosk::timesync
