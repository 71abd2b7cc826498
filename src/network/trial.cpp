#include "network/trial.h"

#include "log/log.h"
#include "network/change_record.h"
#include "network/turn.h"
#include "win32/clock.h"
#include "win32/worker_wake.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

namespace kiosk::network {
namespace {

constexpr std::uint64_t kTrial = 300'000;
constexpr int kProxyWantsAuthentication = 407;

std::atomic<unsigned> changesMade{0};

struct Trial {
  std::string adapter;
  std::uint64_t lookedAt;  // as AwakeMilliseconds
  bool linkWasUp;
  std::uint64_t linkedFor;
};

// Only who has the turn comes here.
std::vector<Trial>& Trials() {
  static auto* const trials = new std::vector<Trial>();  // outlives every thread
  return *trials;
}

Trial& TrialOf(const std::string& adapter) {
  std::vector<Trial>& trials = Trials();
  const auto found =
      std::find_if(trials.begin(), trials.end(), [&](const Trial& each) { return each.adapter == adapter; });
  return found != trials.end() ? *found : trials.emplace_back(Trial{adapter, win32::AwakeMilliseconds(), true, 0});
}

}  // namespace

unsigned ChangesMade() noexcept { return changesMade; }

void NoteAnswer(unsigned madeBefore, int status) {
  if (status == kProxyWantsAuthentication || !HasChangeRecords()) {
    return;
  }
  // While somebody works on an adapter, an answer does not prove what that work leads to.
  const Turn turn(0);
  if (!turn || madeBefore != changesMade) {
    return;
  }
  std::vector<ChangeRecord> records;
  ReadChangeRecords(records);  // none where they cannot be read now: a later answer proves them
  for (const ChangeRecord& record : records) {
    if (!record.unproven) {
      continue;
    }
    TrialOf(record.adapter).linkedFor = 0;
    if (ForgetChange(record.adapter)) {
      log::Log(log::kNotice, log::kKiosk, "net.set: the portal answers; %s stays as it is: %s", record.adapter.c_str(),
               Describe(*record.wanted).c_str());
    }
  }
}

void BeginTrial(const std::string& adapter) {
  TrialOf(adapter) = {adapter, win32::AwakeMilliseconds(), true, 0};
  ++changesMade;
  win32::WakeWorker();
}

bool TrialIsOver(const std::string& adapter, bool linkUp) {
  Trial& trial = TrialOf(adapter);
  const std::uint64_t now = win32::AwakeMilliseconds();
  trial.linkedFor += linkUp && trial.linkWasUp ? now - trial.lookedAt : 0;
  trial.lookedAt = now;
  trial.linkWasUp = linkUp;
  if (trial.linkedFor < kTrial) {
    return false;
  }
  trial.linkedFor = 0;
  return true;
}

}  // namespace kiosk::network
