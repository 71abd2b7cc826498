// "power.get" and "power.set": the administrator at the terminal looks at the power policy and overrides the portal's.
// On connection threads.
#pragma once

#include "command/request.h"

namespace kiosk::power {

// The portal's policy, the override, which one is in force, and what is wrong with it.
json::Value PowerGet(const command::Request& request);

// Stores and applies an override, or with "useOrganisation" true clears it. Errors: "not_enrolled", "invalid"; nothing
// is changed then. Otherwise the reply of PowerGet, in whose "error" failures to apply appear.
json::Value PowerSet(const command::Request& request);

}  // namespace kiosk::power
