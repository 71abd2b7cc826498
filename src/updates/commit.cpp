#include "updates/commit.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "updates/agent_interfaces.h"
#include "win32/clock.h"
#include "win32/com.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <atomic>
#include <memory>

namespace kiosk::updates {
namespace {

constexpr DWORD kCommitWait = 60'000;

// On a thread of its own: the call has no time limit.
HRESULT Commit() noexcept {
  const win32::ComApartment apartment;
  if (FAILED(apartment.Result())) {
    return apartment.Result();
  }
  win32::ComPtr<IUpdateInstaller4> installer;
  const HRESULT created = CreateInProcess(__uuidof(UpdateInstaller), __uuidof(IUpdateInstaller4), installer);
  return FAILED(created) ? created : installer->Commit(0);
}

// The value is stored and flushed before the call: one that was cut short is not repeated either.
bool IsFirstOfThisStart() {
  if (state::ReadStateQword(state::kOsUpdatesCommittedAt) >= win32::WindowsStartedAt()) {
    return false;
  }
  if (state::WriteStateQword(state::kOsUpdatesCommittedAt, win32::FileTimeNow()) && state::FlushStateKey()) {
    return true;
  }
  log::Log(log::kError, log::kKiosk, "os updates: not committed before the restart, since that could not be noted");
  return false;
}

}  // namespace

bool CommitUpdates() {
  if (!IsFirstOfThisStart()) {
    return true;
  }
  // Shared with the thread, which may outlive the wait.
  const auto outcome = std::make_shared<std::atomic<HRESULT>>(E_PENDING);
  const win32::KernelHandle thread = win32::StartThread([outcome]() noexcept { *outcome = Commit(); });
  if (!thread) {
    *outcome = HRESULT_FROM_WIN32(GetLastError());
  } else if (win32::WaitOrStop(thread.Get(), kCommitWait) == win32::WaitResult::kStop) {
    return false;
  }
  if (const HRESULT result = *outcome; result == E_PENDING) {
    log::Log(log::kWarn, log::kKiosk, "os updates: Windows did not commit them within %lu s", kCommitWait / 1000);
  } else if (FAILED(result)) {
    log::Log(log::kWarn, log::kKiosk, "os updates: cannot commit them before the restart (%s)",
             win32::HresultText(result).c_str());
  }
  return true;
}

}  // namespace kiosk::updates
