#include "win32/com.h"

#include <cstdio>

namespace kiosk::win32 {

std::string HresultText(HRESULT result) {
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof(text), "0x%08lx", static_cast<unsigned long>(result)));
  return text;
}

}  // namespace kiosk::win32
