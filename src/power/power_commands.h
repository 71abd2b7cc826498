// "power.get" and "power.set": the administrator at the terminal looks at the power policy and overrides the portal's.
#pragma once

#include "command/request.h"

namespace kiosk::power {

// The portal's policy, the override, which one is in force, and what is wrong with it.
json::Value PowerGet(const command::Request& request);

// Stores an override ("PowerLocal") and applies it. With "useOrganisation" true it deletes the override and applies the
// portal's policy or, where there is none, gives the computer its own settings back. Errors, with nothing changed:
// "not_enrolled", "invalid". Otherwise the reply is that of PowerGet, whose "error" says what could not be applied.
json::Value PowerSet(const command::Request& request);

}  // namespace kiosk::power
