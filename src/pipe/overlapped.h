// One overlapped call at a time, brought to its end whatever happens: while Windows may still write into a buffer, the
// thread that owns it does not go on.
#pragma once

#include "win32/handle.h"

namespace kiosk::pipe {

enum class IoEnd { kDone, kFailed, kTimeout, kStop };

struct IoResult {
  IoEnd end = IoEnd::kFailed;
  DWORD bytes = 0;  // transferred; 0 unless kDone
};

class OverlappedIo {
 public:
  OverlappedIo() noexcept;
  OverlappedIo(const OverlappedIo&) = delete;
  OverlappedIo& operator=(const OverlappedIo&) = delete;

  // False when the event could not be created; the last error says why, and nothing else may be called.
  explicit operator bool() const noexcept { return static_cast<bool>(event_); }

  // For the call that follows. Finish must come before the next Begin and before the end of this object.
  [[nodiscard]] OVERLAPPED* Begin() noexcept;

  // Waits for the call that returned `started` (the last error still being its own). A call that has not ended after
  // `milliseconds`, or when the service is to stop, is cancelled, and what it may have transferred counts as nothing.
  [[nodiscard]] IoResult Finish(HANDLE file, BOOL started, DWORD milliseconds) noexcept;

 private:
  win32::KernelHandle event_;
  OVERLAPPED operation_{};
};

}  // namespace kiosk::pipe
