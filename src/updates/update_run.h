#pragma once

#include "updates/update_state.h"

#include <functional>

namespace kiosk::updates {

// Asked between two installations of one run.
using MayGoOn = std::function<bool()>;

// Searches for missing updates on the calling thread and, with `install`, downloads and installs those that need no
// person. An update that Windows installs together with no other is installed alone, after the others, if no restart is
// owed by then and `mayGoOn` agrees; its failure does not change the code, but shows in the error. The caller holds the
// RunClaim. Takes minutes to hours; a stop of the service ends it within 10 s, with kStopped and without any result.
// What the run gets to know goes into the shared state at once: the missing updates, the time of the search, progress,
// the need of a restart (after a failed installation, too), and every failure, which is also logged.
RunResult RunUpdates(
    bool install, const MayGoOn& mayGoOn = [] { return true; });

}  // namespace kiosk::updates
