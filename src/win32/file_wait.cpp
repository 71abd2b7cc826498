#include "win32/file_wait.h"

#include "win32/thread.h"

namespace kiosk::win32 {
namespace {

// Long for a holder who means well.
constexpr DWORD kLimit = 500;
// A cancellation meets only what waits at that moment.
constexpr DWORD kAgain = 50;

}  // namespace

FileWaitLimit::FileWaitLimit() noexcept : over_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  if (over_ && DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), watched_.Put(), 0, FALSE,
                               DUPLICATE_SAME_ACCESS) != 0) {
    watch_.Reset(CreateThread(nullptr, kSmallStack, Watch, this, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
  }
}

// Waits for the watch, so that it cancels nothing that comes later. The last error stays that of the operation.
FileWaitLimit::~FileWaitLimit() {
  if (watch_) {
    const DWORD error = GetLastError();
    SetEvent(over_.Get());
    WaitForSingleObject(watch_.Get(), INFINITE);
    SetLastError(error);
  }
}

DWORD WINAPI FileWaitLimit::Watch(void* raw) noexcept {
  const auto* const limit = static_cast<const FileWaitLimit*>(raw);
  for (DWORD wait = kLimit; WaitForSingleObject(limit->over_.Get(), wait) == WAIT_TIMEOUT; wait = kAgain) {
    CancelSynchronousIo(limit->watched_.Get());
  }
  return 0;
}

}  // namespace kiosk::win32
