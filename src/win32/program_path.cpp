#include "win32/program_path.h"

#include "win32/grow.h"

#include <vector>

namespace kiosk::win32 {

std::wstring ProgramPath() {
  std::vector<wchar_t> path;
  const auto ask = [](wchar_t* buffer, DWORD* size) -> DWORD {
    const DWORD length = GetModuleFileNameW(nullptr, buffer, *size);
    if (length == 0) {
      return GetLastError();
    }
    if (length == *size) {
      return ERROR_INSUFFICIENT_BUFFER;  // cut
    }
    *size = length;
    return ERROR_SUCCESS;
  };
  const DWORD error = CallGrowing(path, ask, MAX_PATH);
  SetLastError(error);
  return {path.begin(), path.end()};
}

std::wstring StartablePath() {
  std::wstring path = ProgramPath();
  if (path.size() >= MAX_PATH) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    path.clear();
  }
  return path;
}

}  // namespace kiosk::win32
