// One update as the agent found it.
#pragma once

#include "updates/agent_interfaces.h"
#include "updates/update_state.h"

namespace kiosk::updates {

// Offered to people who look for it, never to be installed by itself. An agent too old to know has none of these.
bool IsBrowseOnly(IUpdate* update);

// What cannot be read is empty or 0; an update that does not tell whether it may ask a person something may.
PendingUpdate ReadUpdate(IUpdate* update);

// The title in UTF-8, for log lines.
std::string TitleOf(IUpdate* update);

// Accepts the licence terms unless they are accepted already.
HRESULT AcceptTerms(IUpdate* update);

}  // namespace kiosk::updates
