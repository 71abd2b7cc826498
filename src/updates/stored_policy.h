#pragma once

#include "updates/updates_policy.h"

namespace kiosk::updates {

// The portal's stored policy. False, and `policy` stays as it is, when there is none or it is not valid.
bool LoadUpdatesPolicy(UpdatesPolicy& policy);

}  // namespace kiosk::updates
