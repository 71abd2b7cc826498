// The kit as a service of its own: the only way to be LocalSystem without other tools, and to go on after a restart.
#pragma once

#include "win32/handle.h"

namespace proof {

// Makes the service and starts it. Its process; invalid, with the last error, when that fails.
kiosk::win32::KernelHandle StartAgent();

}  // namespace proof
