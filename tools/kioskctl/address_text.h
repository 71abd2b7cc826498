#pragma once

#include "win32/socket.h"
#include "win32/wide_text.h"

#include <string>

namespace kioskctl {

// "10.1.2.3", "fe80::1%12". Needs Winsock started.
inline std::string AddressText(const sockaddr* address, std::size_t size) {
  wchar_t text[64]{};
  GetNameInfoW(address, static_cast<socklen_t>(size), text, 64, nullptr, 0, NI_NUMERICHOST);
  return kiosk::win32::ToNarrow(text);
}

}  // namespace kioskctl
