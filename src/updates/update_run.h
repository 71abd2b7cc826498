#pragma once

#include "updates/update_state.h"

#include <functional>

namespace kiosk::updates {

// Asked between two installations of one run.
using MayGoOn = std::function<bool()>;

// Searches for missing updates on the calling thread and, with `install`, downloads and installs those that need no
// person. An update that Windows installs together with no other is installed alone, after the others, if no restart is
// owed by then and `mayGoOn` agrees; its failure leaves the code and shows in the error. The caller holds the RunClaim.
// Takes minutes to hours; a stop of the service ends it within 10 s, with kStopped and without any result. Every
// failure is logged and stands in the shared state as well. Whether a restart is owed is known after a failed
// installation too.
RunResult RunUpdates(
    bool install, const MayGoOn& mayGoOn = [] { return true; });

}  // namespace kiosk::updates
