// The kit as a service of its own: the only way to be LocalSystem without other tools, and to go on after a restart.
// Includes nothing with inline calls into Windows: see agent_service.cpp.
#pragma once

namespace proof {

// Makes the service and starts it. The number of its process; 0, with the last error, when that fails.
unsigned long StartAgent();

// Hands this process over to the service manager, which calls RunAgent; a stop ends the process at once, since whatever
// it was about is in the journal. False when the service manager did not start it.
bool ServeAsAgent();

// Goes on where the run stands, and ends it: removes the service, and all that the run changed, at the end, after too
// many restarts, or after a day. False when the run cannot be read: nothing was changed.
bool RunAgent() noexcept;

}  // namespace proof
