// Owners of what the local security authority hands out.
#pragma once

#include "win32/handle.h"

#include <ntsecapi.h>

namespace kiosk::win32 {

struct LsaHandleTraits {
  using Value = LSA_HANDLE;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { LsaClose(value); }
};

struct LsaMemoryTraits {
  using Value = void*;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { LsaFreeMemory(value); }
};

using LsaHandle = Owner<LsaHandleTraits>;
using LsaMemory = Owner<LsaMemoryTraits>;

}  // namespace kiosk::win32
