// The work on one adapter: a change, and the way back. For whoever has the turn.
#pragma once

#include "network/adapters.h"
#include "network/change_record.h"

namespace kiosk::network {

// Whether it is set to that already, and works so.
bool IsDone(const Adapter& adapter, const Settings& wanted);

// Makes the change and reads the adapter into `adapter` until the change shows, for 10 s at most. False when a step
// fails or the change does not show; the log says why. Ends early on a stop.
bool MakeChange(Adapter& adapter, const Settings& wanted);

enum class PutBackResult {
  kOver,    // the settings from before are in force, or need not be put back any more; the record is deleted
  kNotNow,  // to be tried again
  kGone     // there is no such adapter now
};

// Puts back the settings from before. What shows may be neither those nor the wanted ones nor something between them:
// then somebody else has set the adapter since, and it is left as it is, unless `evenIfStrange`. Steps that fail are
// logged with `tell`. While the link is down nothing is tried or decided: gateways do not show then.
PutBackResult PutBack(const ChangeRecord& record, bool evenIfStrange, bool tell);

}  // namespace kiosk::network
