#pragma once

#include "win32/handle.h"

#include <lm.h>

namespace kiosk::win32 {

struct NetBufferTraits {
  using Value = void*;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { NetApiBufferFree(value); }
};

// What the account calls allocate for their caller.
using NetBuffer = Owner<NetBufferTraits>;

}  // namespace kiosk::win32
