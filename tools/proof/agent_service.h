// Between the service manager and the agent. Includes nothing with inline calls into Windows: see the source.
#pragma once

namespace proof {

// Hands this process over to the service manager, which calls RunAgent; a stop ends the process at once, since whatever
// it was about is in the journal. False when the service manager did not start it.
bool ServeAsAgent();

// Goes on where the run stands, and ends it: removes the service, and all that the run changed, at the end, after too
// many restarts, or after a day.
void RunAgent() noexcept;

}  // namespace proof
