// What the portal decides about power and about the updates of Windows.
#pragma once

#include "json/value.h"

namespace kiosk::portal {

// Takes "power" and "updates" of a check-in's reply over, each with where the portal has it from ("powerSource",
// "updatesSource"): the values "PowerPolicy", "PowerSource", "UpdatesPolicy" and "UpdatesSource" are written where they
// differ. Of a policy that is missing or not valid nothing is touched. A change is logged; to apply it is up to the
// threads of these areas. The caller holds the lock of what replies write, and has asked under it whether the terminal
// is still enrolled.
void StorePolicies(const json::Value& reply);

}  // namespace kiosk::portal
