// What keeps Windows from restarting the terminal outside of its maintenance window, and the restart that finishes an
// installation inside of it.
#pragma once

#include "updates/updates_policy.h"

namespace kiosk::updates {

// Sets the Windows Update restart policies for an automatic policy, after saving what the computer had there, once.
// Writes only what differs. Does nothing while the terminal is not enrolled or is being torn down, and nothing when a
// value that exists cannot be saved. Comes from the window thread.
void ApplyWuRestartPolicy(const UpdatesPolicy& policy);

// Puts the computer's own values back while the service owns them. One that was cut short, or could not read a copy, is
// done again as a whole. Comes from the window thread and from a teardown.
void RestoreWuRestartPolicy();

// Commits what is installed, for at most 60 s, and asks Windows to restart in 60 s. False when Windows refuses or the
// service stops. The caller holds the RunClaim.
bool RequestRestart();

}  // namespace kiosk::updates
