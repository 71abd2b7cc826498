#pragma once

#include "win32/winapi.h"

#include <objbase.h>

namespace kiosk::win32 {

// The multithreaded apartment for a scope. A thread that is already in it is counted once more; in any other case of
// failure the destructor does nothing.
class ComApartment {
 public:
  ComApartment() noexcept : result_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
  ~ComApartment() {
    if (SUCCEEDED(result_)) {
      CoUninitialize();
    }
  }

  [[nodiscard]] HRESULT Result() const noexcept { return result_; }

 private:
  HRESULT result_;
};

}  // namespace kiosk::win32
