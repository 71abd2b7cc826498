#pragma once

#include "updates/update_state.h"

#include <string>

namespace kiosk::updates {

// Searches for missing updates on the calling thread and, with `install`, downloads and installs those that need no
// person. The caller holds the RunClaim. Takes minutes to hours; a stop of the service ends it within 10 s, with
// kStopped and without any result. Every failure is logged and stands in the shared state as well.
RunResult RunUpdates(bool install);

// Ends a run as failed: logged, kept as the last error, neither checking nor installing any more.
void RunFailed(RunResult& result, const std::string& text);

}  // namespace kiosk::updates
