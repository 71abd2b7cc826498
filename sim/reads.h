// Reads of the registry that fail for a while, as they do when Windows is short of memory.
#pragma once

#include "win32/winapi.h"

namespace sim {

// Reads of the values of that name, in any key, fail in its lifetime: the next `times`, by default all.
class FailingReads {
 public:
  explicit FailingReads(const wchar_t* valueName, LSTATUS error, int times = -1);
  FailingReads(const FailingReads&) = delete;
  FailingReads& operator=(const FailingReads&) = delete;
  ~FailingReads();
};

}  // namespace sim
