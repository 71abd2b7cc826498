// The work on one adapter: a change, and the way back. For whoever has the turn.
#pragma once

#include "network/adapters.h"
#include "network/change_record.h"

namespace kiosk::network {

// Whether it is set to that already, and works so.
bool IsDone(const Adapter& adapter, const Settings& wanted);

// Makes the change and reads the adapter until it shows, 10 s at most. False when a step fails or it does not show; the
// log has why. Ends early on a stop.
bool MakeChange(Adapter& adapter, const Settings& wanted);

enum class PutBackResult {
  kOver,    // the settings from before are in force, or nothing is to be done about them any more; no record is left
  kNotNow,  // to be tried again
  kGone     // there is no such adapter now
};

// Puts back the settings from before. `evenIfStrange`: also when what shows is neither those nor the wanted ones nor
// something between them; otherwise somebody else has set the adapter since, and it is left as it is. Steps that fail
// are logged when `tell`. Nothing is tried while the link is down.
PutBackResult PutBack(const ChangeRecord& record, bool evenIfStrange, bool tell);

}  // namespace kiosk::network
