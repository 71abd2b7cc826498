#pragma once

#include <string>
#include <string_view>

namespace kiosk::win32 {

// The SHA-256 digest of the bytes as 64 lower-case hexadecimal digits; empty when the system's provider refuses.
std::string Sha256Hex(std::string_view bytes);

}  // namespace kiosk::win32
