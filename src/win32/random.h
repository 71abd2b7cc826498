#pragma once

#include <cstddef>

namespace kiosk::win32 {

// Fills the buffer from the system's preferred generator. False when the generator refuses; the buffer is then zeroed.
bool FillRandom(void* buffer, std::size_t size) noexcept;

}  // namespace kiosk::win32
