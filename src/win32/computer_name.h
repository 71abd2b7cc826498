#pragma once

#include <string>

namespace kiosk::win32 {

// The name of this computer as accounts and sessions know it (its NetBIOS name, at most 15 characters); empty when
// Windows does not tell.
std::wstring ComputerName();

}  // namespace kiosk::win32
