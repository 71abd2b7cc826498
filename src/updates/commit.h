#pragma once

namespace kiosk::updates {

// Lets the update agent complete what is installed, right before a restart: without it a feature update is not
// installed during that restart. A second call may spoil the update, so the agent is called once per start of Windows,
// even if the service is killed meanwhile: "OsUpdatesCommittedAt" says when that was. Waits at most 60 s for the agent;
// a failure is logged. False only when the service stops, and then the restart is not to be asked for.
// https://learn.microsoft.com/windows/win32/api/wuapi/nf-wuapi-iupdateinstaller4-commit
bool CommitUpdates();

}  // namespace kiosk::updates
