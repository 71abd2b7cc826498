// An end to waiting for whoever holds a file.
#pragma once

#include "win32/handle.h"

namespace kiosk::win32 {

// While it lives, a file operation of this thread that waits for somebody else is cancelled after half a second and
// fails, as a rule with ERROR_OPERATION_ABORTED. For one operation, or a few that belong together.
//
// Whoever may open a file, an ordinary user too, may hold an opportunistic lock on it; who opens, renames or deletes
// it, or renames a folder above it, then waits until he gives it up, without a time limit ("Breaking Oplocks",
// "Checking the Oplock State of an IRP_MJ_SET_INFORMATION Operation"). No sharing mode keeps him out, since he need not
// ask for more than the file's attributes. To be cancelled is what such a wait is documented to allow.
class FileWaitLimit {
 public:
  FileWaitLimit() noexcept;
  FileWaitLimit(const FileWaitLimit&) = delete;
  FileWaitLimit& operator=(const FileWaitLimit&) = delete;
  ~FileWaitLimit();

  // False, with the last error, when Windows has no thread or event to give. Then nothing has a limit, and the
  // operation is to be left undone.
  explicit operator bool() const noexcept { return static_cast<bool>(watch_); }

 private:
  static DWORD WINAPI Watch(void* raw) noexcept;

  KernelHandle over_;
  KernelHandle watched_;
  KernelHandle watch_;
};

}  // namespace kiosk::win32
