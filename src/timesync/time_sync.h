// The command "time.sync".
#pragma once

#include "command/request.h"

namespace kiosk::timesync {

// Makes Windows synchronise the clock, measures how far it was out and, since Windows does not tell, whether that came
// to something. The reply, also when that fails, names the server. Takes at most 105 s, unless the service manager
// needs longer for a start, and ends early on a stop.
json::Value TimeSync(const command::Request& request);

}  // namespace kiosk::timesync
