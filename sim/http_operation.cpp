#include "sim/http_operation.h"

#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/seam.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace sim {
namespace {

constexpr DWORD kTeardown = 1'000;  // how long WinHTTP still works on an operation whose handle was closed

std::mutex mutex;  // guards Handle::pending and Handle::uses

void Call(const Handle& handle, DWORD status, void* information, DWORD size) {
  DWORD_PTR context = 0;
  const auto& options = handle.request.options;
  if (const auto set = options.find(WINHTTP_OPTION_CONTEXT_VALUE); set != options.end()) {
    std::memcpy(&context, set->second.data(), sizeof(context));
  }
  if (handle.callback != nullptr && (handle.notifications & status) != 0) {
    handle.callback(handle.token, context, status, information, size);
  }
}

// The last callback comes from whichever thread used the handle last.
void Leave(const HandlePtr& handle) {
  std::unique_lock guard(mutex);
  if (--handle->uses == 0) {
    guard.unlock();
    Call(*handle, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, &handle->token, sizeof(handle->token));
  }
}

DWORD Run(const Operation& operation) {
  const Handle& handle = *operation.handle;
  const DWORD limit = operation.timeout > 0 ? static_cast<DWORD>(operation.timeout) : INFINITE;  // 0 and -1: none
  DWORD error = operation.delay > limit ? ERROR_WINHTTP_TIMEOUT : 0;
  if (Wait(handle.closed, std::min(operation.delay, limit)) == WAIT_OBJECT_0) {
    // WinHttpCloseHandle returns before the handle is torn down, and what the operation uses must be valid until then.
    sim_Sleep(kTeardown);
    if (operation.size != 0) {
      std::memset(operation.buffer, 0xDD, operation.size);
    }
    error = ERROR_WINHTTP_OPERATION_CANCELLED;
  }
  // WinHttpSendRequest: the body must neither go nor change before the response is there or the operation was
  // cancelled.
  const std::string& body = handle.request.body;
  if (handle.stage < Stage::kAnswered && std::memcmp(handle.bodyAt, body.data(), body.size()) != 0) {
    Violation("%s: the body was changed before the response was there", operation.function);
  }
  return error != 0 ? error : operation.effect();
}

void RunAndComplete(const Operation& operation) {
  const DWORD error = Run(operation);
  {
    const std::lock_guard guard(mutex);
    operation.handle->pending = false;
  }
  if (error == 0) {
    Call(*operation.handle, operation.completion, operation.information,
         operation.length != nullptr ? *operation.length : 0);
  } else {
    WINHTTP_ASYNC_RESULT result{0, error};
    Call(*operation.handle, WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result, sizeof(result));
  }
  Leave(operation.handle);
}

DWORD WINAPI RunOnThread(void* raw) {
  const std::unique_ptr<Operation> operation(static_cast<Operation*>(raw));
  RunAndComplete(*operation);
  return 0;
}

}  // namespace

// What takes no time is over before the function returns, its callback included; all else ends on a thread of
// WinHTTP's.
BOOL BeginOperation(Operation operation) {
  Handle& handle = *operation.handle;
  {
    const std::lock_guard guard(mutex);
    if (handle.pending) {
      Violation("%s: another operation of the request is not over", operation.function);
    }
    handle.pending = true;
    ++handle.uses;
  }
  constexpr DWORD kAll = WINHTTP_CALLBACK_FLAG_ALL_COMPLETIONS | WINHTTP_CALLBACK_FLAG_HANDLES;
  if (handle.callback == nullptr || (handle.notifications & kAll) != kAll) {
    Violation("%s: without a callback nobody hears of its end", operation.function);
  }
  if (operation.delay == 0) {
    RunAndComplete(operation);
  } else {
    CloseHandle(sim_CreateThread(nullptr, 0, RunOnThread, new Operation(std::move(operation)), 0, nullptr));
  }
  SetLastError(ERROR_SUCCESS);
  return TRUE;
}

void CloseUnderOperation(const HandlePtr& handle) {
  Signal(handle->closed);
  Leave(handle);
}

}  // namespace sim
