// "power.get" and "power.set": the administrator at the terminal looks at the power policy and overrides the portal's.
// On connection threads.
#pragma once

#include "json/value.h"

namespace kiosk::power {

// The portal's policy, the override, which one is in force, and what is wrong with it.
json::Value HandlePowerGet();

// Stores and applies an override, or with "useOrganisation" true clears it. Errors: "not_enrolled", "invalid"; nothing
// is changed then. Otherwise the reply of HandlePowerGet, in whose "error" failures to apply appear.
json::Value HandlePowerSet(const json::Value& request);

}  // namespace kiosk::power
