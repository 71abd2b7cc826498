// One pass of an installing run: some updates are downloaded, and what came is installed in one go.
#pragma once

#include "updates/agent_steps.h"
#include "updates/found_update.h"

#include <vector>

namespace kiosk::updates {

// The run's progress, in percent, when the pass begins, when it has downloaded and when it is over.
struct PassProgress {
  int start = 0;
  int downloaded = 50;
  int end = 100;
};

// Marks in `updates` what was installed; all of them are alive and without questions for a person, and an exclusive one
// comes alone. `collection` is empty and belongs to the pass. `restartRequired` becomes true when the installation asks
// for a restart. An update whose download or installation fails by itself is logged and stays as it was. False, as
// every step, when the run is over.
bool InstallTogether(AgentSteps& steps, IUpdateSession* session, const win32::ComPtr<IUpdateCollection>& collection,
                     std::vector<FoundUpdate*> updates, const PassProgress& progress, bool& restartRequired);

}  // namespace kiosk::updates
