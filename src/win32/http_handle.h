#pragma once

#include "win32/handle.h"

#include <winhttp.h>

namespace kiosk::win32 {

struct HttpHandleTraits {
  using Value = HINTERNET;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { WinHttpCloseHandle(value); }
};

// A WinHTTP session, connection or request.
using HttpHandle = Owner<HttpHandleTraits>;

}  // namespace kiosk::win32
