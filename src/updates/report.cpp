#include "updates/report.h"

#include "enrolment/enrolment.h"
#include "log/event_log.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "state/stored_json.h"
#include "text/text.h"
#include "win32/clock.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <utility>

namespace kiosk::updates {
namespace {

constexpr int kMostPending = 500;
constexpr std::size_t kLongestError = 80;

json::Value StoredReport() { return state::LoadJson(state::kOsUpdatesReport); }

const char* ResultWord(RunCode code) noexcept {
  switch (code) {
    case RunCode::kDone:
      return "ok";
    case RunCode::kNothing:
      return "nothing";
    default:
      return "failed";
  }
}

int PendingOf(const json::Value& report) {
  const double pending = json::Member(report, "pending").number();
  // Written so that whatever an odd report holds, the conversion is defined.
  return pending > 0 ? static_cast<int>(std::min<double>(pending, kMostPending)) : 0;
}

}  // namespace

bool WriteUpdatesReport(const std::string& token, const char* word, const RunResult* run) {
  const LockedUpdateState oneAtATime;
  if (!enrolment::StillEnrolled(token)) {
    return false;
  }
  json::Value report = StoredReport();
  if (!report.IsObject()) {
    report = json::Value::Object();
  }
  const int pending = run != nullptr && run->pending ? std::min(*run->pending, kMostPending) : PendingOf(report);
  const bool restart = run != nullptr && run->restartRequired ? *run->restartRequired
                                                              : json::Member(report, "restartRequired").boolean();
  report.Set("lastRunAt", UtcNowText());
  report.Set("lastResult", word);
  report.Set("error", json::Value());
  if (run != nullptr && !run->error.empty()) {
    report.Set("error", run->error.substr(0, text::CutLength(run->error, kLongestError)));
  }
  report.Set("pending", pending);
  report.Set("restartRequired", restart);
  if (!state::StoreJson(state::kOsUpdatesReport, report)) {
    log::Log(log::kError, log::kKiosk, "os updates: cannot store the report");
  }
  return true;
}

void RecordRun(const std::string& token, const RunResult& run) {
  if (!WriteUpdatesReport(token, ResultWord(run.code), &run)) {
    return;
  }
  if (run.code == RunCode::kFailed) {
    log::TellTrouble(log::kUpdatesFail, ENTRY_UPDATES_FAILED, {run.error});
  } else {
    log::TroubleIsOver(log::kUpdatesFail);
  }
}

void MarkWindowDone(const std::string& token, const std::string& key) {
  const LockedUpdateState oneAtATime;
  if (enrolment::StillEnrolled(token)) {
    state::SetStateStringIfChanged(state::kOsUpdatesWindowDone, win32::ToWide(key));
  }
}

void AddUpdatesReport(json::Value& body) {
  if (json::Value report = StoredReport(); !report.IsNull()) {
    body.Set("osUpdates", std::move(report));
  }
}

void RememberOwedRestart() {
  const json::Value report = StoredReport();
  // Windows has restarted since an older report. Both texts are of one form, so they compare as their times do.
  if (json::Member(report, "restartRequired").boolean() &&
      json::Member(report, "lastRunAt").text() >= UtcText(win32::WindowsStartedAt())) {
    const LockedUpdateState state;
    state->restartRequired = true;
  }
}

void ForgetUpdates() {
  const LockedUpdateState nobodyWrites;
  state::DeleteStateValues({state::kUpdatesPolicy, state::kUpdatesSource, state::kOsUpdatesReport,
                            state::kOsUpdatesWindowDone, state::kOsUpdatesCommittedAt});
}

}  // namespace kiosk::updates
