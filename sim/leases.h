// Opportunistic locks, which the development machine's file system lacks. What somebody else holds is declared by a
// test, for its own process.
//
// After Microsoft's pages "Breaking Oplocks" and "Checking the Oplock State of an IRP_MJ_CREATE" and "... of an
// IRP_MJ_SET_INFORMATION Operation": the operation that breaks a lock waits for the holder, without a time limit, and
// can be cancelled meanwhile; an opening with FILE_COMPLETE_IF_OPLOCKED does not wait.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

enum class Lease {
  kBatch,       // holds up whoever opens the file for more than its attributes, and renames
  kReadHandle,  // holds up whoever opens it and does not share it for reading, renames and deletions
};

// Somebody who reads the file or folder, shares it for everything, and never acknowledges that his lock is broken:
// whoever breaks it waits until this ends. With an error every attempt fails with that at once.
class HeldFile {
 public:
  explicit HeldFile(const std::wstring& path, Lease lease = Lease::kBatch) : HeldFile(path, lease, ERROR_SUCCESS) {}
  HeldFile(const std::wstring& path, DWORD error) : HeldFile(path, Lease::kBatch, error) {}
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  ~HeldFile();

  // How often somebody tried.
  [[nodiscard]] int Attempts() const;

 private:
  HeldFile(const std::wstring& path, Lease lease, DWORD error);
  std::wstring path_;
};

// For the simulation's own functions: what a call does to a file.
enum class FileUse {
  kLook,  // opens it for its attributes
  kOpen,
  kOpenUnshared,    // and does not share it for reading
  kDelete,          // deletes what is open already
  kRenameOrDelete,  // opens it for that
};
FileUse UseOfOpening(DWORD access, DWORD share);

// Whether the call is held up. The path may be of any form.
bool IsLeased(const std::wstring& path, FileUse use);

// Waits while it is; with `andBelow` also for locks on what is below the folder. False, with the last error, when the
// call is to fail: ERROR_OPERATION_ABORTED when the wait was cancelled.
bool AwaitLease(const std::wstring& path, FileUse use, bool andBelow = false);

}  // namespace sim
