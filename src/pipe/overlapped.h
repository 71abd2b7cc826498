// One overlapped call at a time, brought to its end whatever happens: while Windows may still write into a buffer, the
// thread that owns it does not go on.
#pragma once

#include "win32/handle.h"
#include "win32/stop.h"

namespace kiosk::pipe {

enum class IoEnd { kDone, kFailed, kTimeout, kStop };

struct IoResult {
  IoEnd end = IoEnd::kFailed;
  DWORD bytes = 0;  // transferred; 0 unless kDone
};

class OverlappedIo {
 public:
  // The calls end with kStop when the service is to stop or `end` is set; null: only then.
  explicit OverlappedIo(HANDLE end = nullptr) noexcept;
  OverlappedIo(const OverlappedIo&) = delete;
  OverlappedIo& operator=(const OverlappedIo&) = delete;

  // False when the event could not be created; the last error says why, and nothing else may be called.
  explicit operator bool() const noexcept { return static_cast<bool>(event_); }

  // For the call that follows. Finish must come before the next Begin and before the end of this object.
  [[nodiscard]] OVERLAPPED* Begin() noexcept;

  // Waits for the pending call and leaves it going; kTimeout when it has not ended by then. Finish must follow.
  [[nodiscard]] win32::WaitResult Await(DWORD milliseconds) const noexcept;

  // Waits for the call that returned `started` (the last error still being its own). A call that has not ended after
  // `milliseconds`, or when it is to end, is cancelled, and what it may have transferred counts as nothing. When the
  // call failed, the last error says why.
  [[nodiscard]] IoResult Finish(HANDLE file, BOOL started, DWORD milliseconds) noexcept;

 private:
  win32::KernelHandle event_;
  HANDLE end_;
  OVERLAPPED operation_{};
};

}  // namespace kiosk::pipe
