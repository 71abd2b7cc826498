#include "sim/bad_disk.h"

#include "sim/files_internal.h"
#include "sim/seam.h"

#include <atomic>
#include <mutex>

namespace sim {
namespace {

std::atomic<bool> bad{false};
std::mutex mutex;  // guards the three below
std::wstring badPart;
unsigned badCalls = 0;
DWORD badError = ERROR_SUCCESS;

}  // namespace

BadDisk::BadDisk(const std::wstring& part, unsigned calls, DWORD error) {
  const std::lock_guard guard(mutex);
  badPart = Lower(part);
  badCalls = calls;
  badError = error;
  bad = true;
}

BadDisk::~BadDisk() { bad = false; }

bool DiskIsBad() { return bad; }

bool DiskRefuses(unsigned kind, const std::wstring& plain) {
  if (!bad) {
    return false;
  }
  const std::lock_guard guard(mutex);
  const bool refused = (badCalls & kind) != 0 && plain.find(badPart) != std::wstring::npos;
  if (refused) {
    SetLastError(badError);
  }
  return refused;
}

}  // namespace sim

using namespace sim;

// As much room as freeDiskMegabytes says.
SIM(WINBOOL, GetDiskFreeSpaceExW, LPCWSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total,
    PULARGE_INTEGER free) {
  const BOOL done = !DiskRefuses(kLooks, Plain(folder)) && ::GetDiskFreeSpaceExW(folder, available, total, free);
  if (const std::optional<DWORD> megabytes = freeDiskMegabytes.Read(); done && megabytes) {
    available->QuadPart = std::uint64_t{*megabytes} * 1024 * 1024;
  }
  return done;
}
