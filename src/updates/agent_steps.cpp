#include "updates/agent_steps.h"

#include "log/log.h"
#include "win32/stop.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace kiosk::updates {
namespace {

// How long an operation that a stop abandons may take to end; the stop itself has 40 s for everything.
constexpr DWORD kAbandonWait = 10'000;

}  // namespace

void RunFailed(RunResult& result, const std::string& text) {
  result.code = RunCode::kFailed;
  result.error = text;
  log::Log(log::kError, log::kKiosk, "os updates: %s", text.c_str());
  const LockedUpdateState state;
  state->checking = false;
  state->installing = false;
  state->lastError = text;
}

bool AgentSteps::Check(const char* stage, HRESULT result) {
  if (FAILED(result)) {
    RunFailed(result_, StageText(stage, result));
  }
  return SUCCEEDED(result);
}

bool AgentSteps::Fail(const char* text) {
  RunFailed(result_, text);
  return false;
}

bool AgentSteps::Stopped() {
  result_ = {};
  result_.code = RunCode::kStopped;
  return false;
}

bool AgentSteps::Begin(const char* stage, int base, int span, SharedOperation& operation) {
  if (win32::StopRequested()) {
    return Stopped();
  }
  win32::KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!done) {
    return Check(stage, HRESULT_FROM_WIN32(GetLastError()));
  }
  operation = std::make_shared<Operation>(Operation{std::move(done), BeginProgressStage(base), base, span});
  return true;
}

bool AgentSteps::EndedBeforeStop(const Operation& operation) {
  win32::WaitResult waited = win32::WaitResult::kTimeout;
  while (waited == win32::WaitResult::kTimeout && !win32::StopRequested()) {
    waited = win32::WaitOrStop(operation.done.Get(), INFINITE);
  }
  return waited == win32::WaitResult::kSignaled;
}

bool AgentSteps::EndedAfterAbort(const Operation& operation) {
  const DWORD left = std::min(kAbandonWait, win32::StopBudgetLeft());
  if (WaitForSingleObject(operation.done.Get(), left) == WAIT_OBJECT_0) {
    return true;
  }
  log::Log(log::kWarn, log::kKiosk, "os updates: Windows did not give the operation up in time");
  return false;
}

}  // namespace kiosk::updates
