// The commands by which the terminal looks at its updates and installs them at once. They start runs and never wait for
// one.
#pragma once

#include "command/request.h"

namespace kiosk::updates {

// "os.updates": what is known of the updates, and the policy; with "check": true it starts a search unless a run is
// going. "invalid" when "check" is neither absent nor a boolean.
json::Value OsUpdates(const command::Request& request);

// "os.install": starts a run that searches and installs; "busy" while a run is going or when none can be started.
json::Value OsInstall(const command::Request& request);

}  // namespace kiosk::updates
