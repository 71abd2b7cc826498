#include "win32/random.h"

#include "win32/winapi.h"

#include <bcrypt.h>

namespace kiosk::win32 {

bool FillRandom(void* buffer, std::size_t size) noexcept {
  const NTSTATUS status =
      BCryptGenRandom(nullptr, static_cast<PUCHAR>(buffer), static_cast<ULONG>(size), BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  if (status < 0) {
    SecureZeroMemory(buffer, size);
  }
  return status >= 0;
}

}  // namespace kiosk::win32
