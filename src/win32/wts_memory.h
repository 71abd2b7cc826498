#pragma once

#include "win32/handle.h"

#include <wtsapi32.h>

namespace kiosk::win32 {

struct WtsMemoryTraits {
  using Value = void*;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { WTSFreeMemory(value); }
};

// What the session calls allocate for their caller.
using WtsMemory = Owner<WtsMemoryTraits>;

}  // namespace kiosk::win32
