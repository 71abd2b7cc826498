#pragma once

#include "win32/handle.h"

#include <powrprof.h>

namespace kiosk::power {

// The power scheme that was the active one when this was made; false, with the error, when there was none.
class ActiveScheme {
 public:
  ActiveScheme() noexcept {
    GUID* scheme = nullptr;
    error_ = PowerGetActiveScheme(nullptr, &scheme);
    scheme_.Reset(scheme);
  }

  explicit operator bool() const noexcept { return error_ == ERROR_SUCCESS && static_cast<bool>(scheme_); }
  [[nodiscard]] const GUID* Id() const noexcept { return static_cast<const GUID*>(scheme_.Get()); }
  [[nodiscard]] DWORD Error() const noexcept { return error_; }

 private:
  DWORD error_ = ERROR_SUCCESS;
  win32::LocalMemory scheme_;
};

}  // namespace kiosk::power
