// The power policies in the Kiosk state key: the portal's, the terminal's own that overrides it, and which one is in
// force.
#pragma once

#include "power/power_policy.h"
#include "state/state_values.h"

#include <string>

namespace kiosk::power {

// Reads "PowerPolicy" or "PowerLocal". False, with `policy` as it was, when the value is absent or holds no valid
// policy.
bool LoadPowerPolicy(const state::StateValue& value, PowerPolicy& policy);

// The policy in force: the override, failing that the portal's. False, with `policy` as it was, when there is neither.
bool LoadEffectivePowerPolicy(PowerPolicy& policy);

// The canonical text of a policy, as it is stored and logged.
std::string PowerPolicyText(const PowerPolicy& policy);

}  // namespace kiosk::power
