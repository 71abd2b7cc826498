#pragma once

#include "json/value.h"
#include "updates/updates_policy.h"

namespace kiosk::updates {

// The portal's stored policy. False, and `policy` stays as it is, when there is none or it is not valid.
bool LoadUpdatesPolicy(UpdatesPolicy& policy);

// Takes "updates" and "updatesSource" of a check-in's reply over; without a valid "updates" it does nothing at all. The
// caller has made sure, under the lock of what replies write, that the terminal is still enrolled.
void ApplyPortalUpdatesPolicy(const json::Value& reply);

}  // namespace kiosk::updates
