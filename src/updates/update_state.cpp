#include "updates/update_state.h"

#include "win32/clock.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace kiosk::updates {
namespace {

// Run and connection threads, the window thread, the service thread at start, and whoever tears kiosk mode down. Also
// held while the report is written, never across a wait or a call to the update agent.
win32::Lock stateLock{win32::LockRank::kLeaf};

// Kept for ever, since a detached run may outlive main.
UpdateState& State() {
  static auto* const state = new UpdateState;
  return *state;
}

// Set by whoever begins a run, cleared by its end.
std::atomic<bool> busy{false};

// The stage's number above, its percentage in the lowest byte. Written by runs and by threads of the update agent.
constexpr std::uint32_t kPercentBits = 8;
std::atomic<std::uint32_t> progress{0};

constexpr std::uint32_t Packed(ProgressStage stage, int percent) noexcept {
  return stage << kPercentBits | static_cast<std::uint32_t>(std::clamp(percent, 0, 100));
}

}  // namespace

LockedUpdateState::LockedUpdateState() noexcept : guard_(stateLock) {}

UpdateState* LockedUpdateState::operator->() const noexcept { return &State(); }

ProgressStage BeginProgressStage(int percent) noexcept {
  // Only a run begins stages, and there is one at most: the number cannot change in between.
  const ProgressStage stage = (progress.load() >> kPercentBits) + 1;
  progress.store(Packed(stage, percent));
  return stage & (UINT32_MAX >> kPercentBits);
}

void ReportProgress(ProgressStage stage, int percent) noexcept {
  std::uint32_t seen = progress.load();
  while (seen >> kPercentBits == stage && !progress.compare_exchange_weak(seen, Packed(stage, percent))) {
  }
}

int CurrentProgress() noexcept { return static_cast<int>(progress.load() & ((1U << kPercentBits) - 1)); }

std::optional<RunClaim> RunClaim::Take() {
  if (busy.exchange(true)) {
    return std::nullopt;
  }
  return RunClaim();
}

RunClaim::~RunClaim() {
  if (held_) {
    {
      const LockedUpdateState state;
      state->checking = false;
      state->installing = false;
    }
    busy = false;
  }
}

bool RunIsGoing() noexcept { return busy; }

std::string UtcText(std::uint64_t time) {
  const FILETIME raw = win32::ToFileTime(time);
  SYSTEMTIME parts{};
  FileTimeToSystemTime(&raw, &parts);
  char text[64];
  static_cast<void>(std::snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02uZ", unsigned{parts.wYear},
                                  unsigned{parts.wMonth}, unsigned{parts.wDay}, unsigned{parts.wHour},
                                  unsigned{parts.wMinute}, unsigned{parts.wSecond}));
  return text;
}

std::string UtcNowText() { return UtcText(win32::FileTimeNow()); }

}  // namespace kiosk::updates
