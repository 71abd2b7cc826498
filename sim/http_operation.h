// What lies behind the simulated WinHTTP handles, and the one operation that a request may have under way at a time.
#pragma once

#include "sim/http.h"

#include <memory>

namespace sim {

enum class Stage { kSession, kConnection, kOpened, kSent, kAnswered };

// Session, connection or request: each kind inherits what its parent had when it was made.
struct Handle {
  Stage stage = Stage::kSession;
  HINTERNET token = nullptr;
  Request request;
  Response response;
  std::size_t sent = 0;  // bytes of the body that were read
  DWORD available = 0, lastRead = 0;
  WINHTTP_STATUS_CALLBACK callback = nullptr;
  DWORD notifications = 0;
  const void* bodyAt = nullptr;  // the caller's, which WinHTTP reads until the response is there
  HANDLE closed = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  // Guarded by http_operation.cpp.
  bool pending = false;  // an operation is
  int uses = 1;          // the open handle, and each operation until its callback has returned

  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { CloseHandle(closed); }
};
using HandlePtr = std::shared_ptr<Handle>;

// It takes its time unless a time-out or the closing of the handle comes first, then has its effect, and is over when
// the callback was called.
struct Operation {
  const char* function;
  HandlePtr handle;
  DWORD delay;                    // ms of virtual time, INFINITE: it never ends by itself
  int timeout;                    // as WinHttpSetTimeouts has them
  std::function<DWORD()> effect;  // returns the error
  DWORD completion;               // the status of success
  void* information = nullptr;    // for the callback, with its length when that is over
  const DWORD* length = nullptr;
  void* buffer = nullptr;  // the caller's, of `size` bytes, into which the operation reads
  DWORD size = 0;
};

// Always true, as the function itself answers.
BOOL BeginOperation(Operation operation);

// The handle was taken out of the table. Its last callback comes when nothing uses it any more.
void CloseUnderOperation(const HandlePtr& handle);

}  // namespace sim
