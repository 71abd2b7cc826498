// What every step of a run with the update agent has in common: how it fails, how it waits for the agent, and how a
// stop of the service ends it. A step returns false when the run is over, and then the run's result says why.
#pragma once

#include "updates/agent_callbacks.h"
#include "updates/agent_results.h"
#include "updates/update_state.h"
#include "win32/com.h"

#include <string>

namespace kiosk::updates {

// The stages whose failures have a name of their own in the report.
inline constexpr char kSearchFailed[] = "search_failed";
inline constexpr char kDownloadFailed[] = "download_failed";
inline constexpr char kInstallFailed[] = "install_failed";

// Ends a run as failed: logged, kept as the last error, neither checking nor installing any more.
void RunFailed(RunResult& result, const std::string& text);

class AgentSteps {
 public:
  explicit AgentSteps(RunResult& result) noexcept : result_(result) {}

  // False, and the run has failed with "<stage> 0x<HRESULT>", when `result` is a failure.
  bool Check(const char* stage, HRESULT result);
  // False: the run has failed with that text.
  bool Fail(const char* text);
  // False: the service stops, and the run leaves no result.
  bool Stopped();

  // Makes something for the agent to signal, and begins a stage of the progress from `base` to `base + span`, unless
  // the service is stopping.
  bool Begin(const char* stage, int base, int span, SharedOperation& operation);

  // Waits, without a limit of its own, until the operation is over, and takes its result from the agent's object that
  // began it. A stop abandons the operation.
  template <typename Agent, typename Job, typename Result>
  bool Finish(const char* stage, const Operation& operation, const win32::ComPtr<Job>& job,
              const win32::ComPtr<Agent>& agent, HRESULT (STDMETHODCALLTYPE Agent::*end)(Job*, Result**),
              win32::ComPtr<Result>& result) {
    if (!EndedBeforeStop(operation)) {
      job->RequestAbort();
      if (EndedAfterAbort(operation)) {
        job->CleanUp();
      }
      return Stopped();
    }
    const HRESULT ended = (agent.Get()->*end)(job.Get(), result.Put());
    job->CleanUp();
    return Check(stage, Given(ended, result));
  }

 private:
  static bool EndedBeforeStop(const Operation& operation);
  static bool EndedAfterAbort(const Operation& operation);

  RunResult& result_;
};

}  // namespace kiosk::updates
