// One update as the agent found it.
#pragma once

#include "updates/agent_interfaces.h"
#include "updates/update_state.h"
#include "win32/com.h"

namespace kiosk::updates {

struct FoundUpdate {
  win32::ComPtr<IUpdate> update;
  PendingUpdate entry;
  // Windows installs it together with no other: such a call fails and installs nothing.
  // https://learn.microsoft.com/windows/win32/api/wuapi/ne-wuapi-installationimpact
  bool exclusive = false;
  bool installed = false;  // by this run
};

// Offered to people who look for it, never to be installed by itself. False when the agent is too old to tell.
bool IsBrowseOnly(const win32::ComPtr<IUpdate>& update);

// What cannot be read is empty or 0. An update without an installation behaviour asks nothing; one whose behaviour
// cannot be read may.
FoundUpdate ReadUpdate(const win32::ComPtr<IUpdate>& update);

// Accepts the licence terms unless they are accepted already.
HRESULT AcceptTerms(IUpdate* update);

}  // namespace kiosk::updates
