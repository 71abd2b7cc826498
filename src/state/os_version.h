#pragma once

#include <string>

namespace kiosk::state {

// "10.0.19045": the true version of Windows, not the one that an unmanifested program is told. "Windows" when it cannot
// be had.
std::string OsVersionText();

}  // namespace kiosk::state
