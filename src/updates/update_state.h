// What is known of the computer's updates, kept in memory and shared by runs, the terminal's commands and the reports;
// and the claim that makes sure that at most one run exists.
#pragma once

#include "win32/lock.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kiosk::updates {

// An update that is missing on this computer.
struct PendingUpdate {
  std::string id;
  std::string title;
  std::uint64_t sizeBytes = 0;  // what may have to be downloaded at most
  bool mayRestart = false;      // its installation may require a restart
  bool mayAsk = false;          // its installation may ask a person something, so it is never installed here
};

struct UpdateState {
  bool checking = false;  // a run is searching
  bool installing = false;
  bool restartRequired = false;
  std::vector<PendingUpdate> pending;
  std::string lastChecked;  // UtcNowText of the last completed search; empty before the first
  std::string lastError;    // of a run; empty: none
};

// The shared state for as long as this object lives: nothing may be waited for meanwhile.
class LockedUpdateState {
 public:
  LockedUpdateState() noexcept;
  UpdateState* operator->() const noexcept;

 private:
  win32::LockGuard guard_;
};

// Progress of the run, 0 to 100, for anybody without the lock. A stage of a run begins with a percentage and a new
// number; what is reported under an older number comes late and is dropped.
using ProgressStage = std::uint32_t;
ProgressStage BeginProgressStage(int percent) noexcept;
void ReportProgress(ProgressStage stage, int percent) noexcept;
int CurrentProgress() noexcept;

// The right to run. While it lives no run begins; with its end the state is neither checking nor installing.
class RunClaim {
 public:
  // Empty when a run is going already.
  static std::optional<RunClaim> Take();
  RunClaim(RunClaim&& other) noexcept : held_(other.held_) { other.held_ = false; }
  RunClaim(const RunClaim&) = delete;
  RunClaim& operator=(const RunClaim&) = delete;
  RunClaim& operator=(RunClaim&&) = delete;
  ~RunClaim();

 private:
  RunClaim() noexcept = default;
  bool held_ = true;
};

// Whether somebody holds the claim. Whoever ends the process waits a while for it to become false.
bool RunIsGoing() noexcept;

enum class RunCode { kDone = 0, kNothing = 1, kFailed = 2, kStopped = 3 };

// The outcome of a run. What a run did not get to know is empty.
struct RunResult {
  RunCode code = RunCode::kDone;
  std::optional<int> pending;           // updates still missing after it
  std::optional<bool> restartRequired;  // before the computer is up to date
  std::string error;                    // "<stage> 0x<HRESULT>" or "busy"; empty: none
};

// A FILETIME value (UTC) as "2026-11-21T02:10:00Z", and the system time in the same form.
std::string UtcText(std::uint64_t time);
std::string UtcNowText();

}  // namespace kiosk::updates
