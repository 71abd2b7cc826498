#include "sim/leases.h"

#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/files_internal.h"
#include "sim/seam.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace sim {
namespace {

struct Hold {
  HANDLE released;  // never closed: somebody may just be about to wait for it
  Lease lease;
  DWORD error;
  int attempts;
};

std::mutex mutex;
std::map<std::wstring, Hold> holds;
std::map<DWORD, HANDLE> waits;  // the threads that are held up, and the events that cancel their waits

bool HoldsUp(Lease lease, FileUse use) {
  switch (use) {
    case FileUse::kLook:
      return false;
    case FileUse::kOpen:
      return lease == Lease::kBatch;
    case FileUse::kDelete:
      return lease == Lease::kReadHandle;
    case FileUse::kOpenUnshared:
    case FileUse::kRenameOrDelete:
      break;
  }
  return true;
}

// With the mutex held.
Hold* Find(const std::wstring& path, FileUse use, bool andBelow) {
  if (holds.empty()) {
    return nullptr;
  }
  const std::wstring plain = Plain(path);
  const auto found = std::find_if(holds.begin(), holds.end(), [&](const auto& each) {
    return HoldsUp(each.second.lease, use) &&
           (each.first == plain || (andBelow && each.first.starts_with(plain + L"\\")));
  });
  return found == holds.end() ? nullptr : &found->second;
}

bool AwaitRelease(HANDLE released) {
  HANDLE cancelled = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  {
    const std::lock_guard guard(mutex);
    waits[GetCurrentThreadId()] = cancelled;
  }
  const HANDLE either[] = {released, cancelled};
  const DWORD ended = WaitMany(2, either, FALSE, INFINITE);
  const std::lock_guard guard(mutex);
  waits.erase(GetCurrentThreadId());
  CloseHandle(cancelled);
  return ended == WAIT_OBJECT_0;
}

}  // namespace

HeldFile::HeldFile(const std::wstring& path, Lease lease, DWORD error) : path_(Plain(path)) {
  const std::lock_guard guard(mutex);
  holds[path_] = {CreateEventW(nullptr, TRUE, FALSE, nullptr), lease, error, 0};
}

HeldFile::~HeldFile() {
  HANDLE released = nullptr;
  {
    const std::lock_guard guard(mutex);
    released = holds[path_].released;
    holds.erase(path_);
  }
  Signal(released);
}

int HeldFile::Attempts() const {
  const std::lock_guard guard(mutex);
  return holds[path_].attempts;
}

FileUse UseOfOpening(DWORD access, DWORD share) {
  constexpr DWORD kAttributes = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE;
  return (access & ~kAttributes) == 0     ? FileUse::kLook
         : (share & FILE_SHARE_READ) != 0 ? FileUse::kOpen
                                          : FileUse::kOpenUnshared;
}

bool IsLeased(const std::wstring& path, FileUse use) {
  const std::lock_guard guard(mutex);
  return Find(path, use, false) != nullptr;
}

bool AwaitLease(const std::wstring& path, FileUse use, bool andBelow) {
  for (;;) {
    HANDLE released = nullptr;
    {
      const std::lock_guard guard(mutex);
      Hold* const hold = Find(path, use, andBelow);
      if (hold == nullptr) {
        return true;
      }
      ++hold->attempts;
      if (hold->error != ERROR_SUCCESS) {
        SetLastError(hold->error);
        return false;
      }
      released = hold->released;
    }
    if (!AwaitRelease(released)) {
      SetLastError(ERROR_OPERATION_ABORTED);
      return false;
    }
  }
}

}  // namespace sim

using namespace sim;

// What really waits in the file system is none of the service's business.
SIM(WINBOOL, CancelSynchronousIo, HANDLE thread) {
  const std::lock_guard guard(mutex);
  const auto found = waits.find(GetThreadId(thread));
  if (found == waits.end()) {
    SetLastError(ERROR_NOT_FOUND);
    return FALSE;
  }
  Signal(found->second);
  return TRUE;
}
