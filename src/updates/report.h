// The last result of an update run as the portal gets it, and what else of the updates area lasts.
#pragma once

#include "json/value.h"
#include "updates/update_state.h"

#include <string>

namespace kiosk::updates {

// Stores the result word ("ok", "nothing", "failed", "deferred") with the time and, with a run, its error, count and
// need of a restart; what the run does not know, or a report without one, leaves as the report before said. False, and
// nothing is written, when the enrolment with `token` has ended meanwhile.
bool WriteUpdatesReport(const std::string& token, const char* word, const RunResult* run);

// "ok", "nothing" or "failed".
const char* ResultWord(RunCode code) noexcept;

// The window of that key needs no run any more. Not written when the enrolment with `token` has ended.
void MarkWindowDone(const std::string& token, const std::string& key);

// Adds the stored report as "osUpdates" to the body of a check-in; nothing when there is none.
void AddUpdatesReport(json::Value& body);

// At the start of the service: a restart that the stored report asks for is shown again, unless Windows has restarted
// since.
void RememberOwedRestart();

// For a teardown that has marked itself: deletes policy, source, report and the window done. Nothing writes them
// afterwards.
void ForgetUpdates();

}  // namespace kiosk::updates
