#include "pipe/overlapped.h"

namespace kiosk::pipe {

using win32::WaitResult;

OverlappedIo::OverlappedIo(HANDLE end) noexcept : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)), end_(end) {}

OVERLAPPED* OverlappedIo::Begin() noexcept {
  operation_ = {};
  operation_.hEvent = event_.Get();
  return &operation_;
}

WaitResult OverlappedIo::Await(DWORD milliseconds) const noexcept {
  return win32::WaitOrStop(event_.Get(), milliseconds, end_);
}

IoResult OverlappedIo::Finish(HANDLE file, BOOL started, DWORD milliseconds) noexcept {
  DWORD bytes = 0;
  if (started == 0) {
    if (GetLastError() != ERROR_IO_PENDING) {
      return {IoEnd::kFailed};
    }
    const WaitResult waited = Await(milliseconds);
    if (waited != WaitResult::kSignaled) {
      CancelIoEx(file, &operation_);
      GetOverlappedResult(file, &operation_, &bytes, TRUE);
      return {waited == WaitResult::kStop ? IoEnd::kStop : IoEnd::kTimeout};
    }
  }
  if (GetOverlappedResult(file, &operation_, &bytes, FALSE) == 0) {
    return {IoEnd::kFailed};
  }
  return {IoEnd::kDone, bytes};
}

}  // namespace kiosk::pipe
