#include "sim/reads.h"

#include "sim/seam.h"

#include <mutex>

namespace sim {
namespace {

std::mutex mutex;  // guards the rest
std::wstring failing;
LSTATUS failure = ERROR_SUCCESS;
int left = 0;

LSTATUS FailureOf(const wchar_t* name) {
  const std::lock_guard guard(mutex);
  if (left == 0 || name == nullptr || failing != name) {
    return ERROR_SUCCESS;
  }
  left -= left > 0 ? 1 : 0;
  return failure;
}

}  // namespace

FailingReads::FailingReads(const wchar_t* valueName, LSTATUS error, int times) {
  const std::lock_guard guard(mutex);
  failing = valueName;
  failure = error;
  left = times;
}

FailingReads::~FailingReads() {
  const std::lock_guard guard(mutex);
  left = 0;
}

}  // namespace sim

SIM(LSTATUS, RegQueryValueExW, HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
  const LSTATUS error = sim::FailureOf(name);
  return error != ERROR_SUCCESS ? error : ::RegQueryValueExW(key, name, reserved, type, data, size);
}
