#include "pipe/overlapped.h"

#include "win32/stop.h"

namespace kiosk::pipe {

OverlappedIo::OverlappedIo() noexcept : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

OVERLAPPED* OverlappedIo::Begin() noexcept {
  operation_ = {};
  operation_.hEvent = event_.Get();
  return &operation_;
}

IoResult OverlappedIo::Finish(HANDLE file, BOOL started, DWORD milliseconds) noexcept {
  DWORD bytes = 0;
  if (started == 0) {
    if (GetLastError() != ERROR_IO_PENDING) {
      return {IoEnd::kFailed};
    }
    const win32::WaitResult waited = win32::WaitOrStop(event_.Get(), milliseconds);
    if (waited != win32::WaitResult::kSignaled) {
      CancelIoEx(file, &operation_);
      GetOverlappedResult(file, &operation_, &bytes, TRUE);
      return {waited == win32::WaitResult::kStop ? IoEnd::kStop : IoEnd::kTimeout};
    }
  }
  if (GetOverlappedResult(file, &operation_, &bytes, FALSE) == 0) {
    return {IoEnd::kFailed};
  }
  return {IoEnd::kDone, bytes};
}

}  // namespace kiosk::pipe
