#include "win32/computer_name.h"

#include "win32/winapi.h"

#include <array>

namespace kiosk::win32 {

std::wstring ComputerName() {
  std::array<wchar_t, MAX_COMPUTERNAME_LENGTH + 1> name{};
  DWORD size = name.size();
  return GetComputerNameW(name.data(), &size) != 0 ? std::wstring(name.data(), size) : std::wstring();
}

}  // namespace kiosk::win32
