// "Ask the size, then the content": the one retry loop for calls whose answer may grow between the two questions.
#pragma once

#include "win32/winapi.h"

#include <vector>

namespace kiosk::win32 {

// Calls `call(buffer, size)` until it no longer answers "too small". `call` takes a buffer of `size` elements (null and
// 0 at first), sets `size` to what it needs or used, and returns a Windows error. The vector has the used size on
// success. Gives up with ERROR_MORE_DATA after 8 rounds of an answer that keeps growing.
template <typename Element, typename Call>
DWORD CallGrowing(std::vector<Element>& buffer, Call call, DWORD firstSize = 0) {
  DWORD size = firstSize;
  for (int round = 0; round < 8; ++round) {
    buffer.resize(size);
    DWORD needed = size;
    const DWORD error = call(buffer.empty() ? nullptr : buffer.data(), &needed);
    const bool sizeOnly = error == ERROR_SUCCESS && needed > size;
    if (error != ERROR_MORE_DATA && error != ERROR_INSUFFICIENT_BUFFER && !sizeOnly) {
      buffer.resize(error == ERROR_SUCCESS ? needed : 0);
      return error;
    }
    // A call that does not say how much it needs gets twice as much, at least something.
    size = needed > size ? needed : size * 2 + 64;
  }
  buffer.clear();
  return ERROR_MORE_DATA;
}

}  // namespace kiosk::win32
