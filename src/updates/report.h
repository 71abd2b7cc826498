// The last result of an update run as the portal gets it, and what else of the updates area lasts.
#pragma once

#include "json/value.h"
#include "updates/update_state.h"

#include <string>

namespace kiosk::updates {

// Stores a report ("OsUpdatesReport"): the result word ("ok", "nothing", "failed", "deferred"), the time, and from
// `run` its error, how many updates are pending and whether a restart is needed. `run` may be null; what it does not
// know stays as in the report before, except the error, which is then null. False, and nothing is written, when the
// enrolment with `token` has ended meanwhile.
bool WriteUpdatesReport(const std::string& token, const char* word, const RunResult* run);

// The same for a run that is over and was not stopped, and in the event log the first that failed until one does not.
void RecordRun(const std::string& token, const RunResult& run);

// Stores ("OsUpdatesWindowDone") that the window of that key needs no further run, unless the enrolment with `token`
// has ended.
void MarkWindowDone(const std::string& token, const std::string& key);

// Adds the stored report as "osUpdates" to the body of a check-in; nothing when there is none.
void AddUpdatesReport(json::Value& body);

// At the start of the service: sets `restartRequired` of the shared state if the stored report asks for a restart and
// Windows has not restarted since.
void RememberOwedRestart();

// For a teardown that has marked itself: deletes all values of this area but those of updates/restart_policy. Nothing
// writes them afterwards.
void ForgetUpdates();

}  // namespace kiosk::updates
