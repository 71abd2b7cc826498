// The commands by which the terminal looks at its updates and installs them at once. They start runs and never wait for
// one.
#pragma once

#include "command/request.h"

namespace kiosk::updates {

// False when a run is going already, or could not be started. Otherwise one searches (and installs) on a thread of its
// own and records its result.
bool StartBackgroundRun(bool install);

// "os.updates"; with "check": true it starts a search unless a run is going.
json::Value OsUpdates(const command::Request& request);

// "os.install"; "busy" while a run is going.
json::Value OsInstall(const command::Request& request);

}  // namespace kiosk::updates
