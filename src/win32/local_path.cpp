#include "win32/local_path.h"

#include "win32/winapi.h"

#include <array>
#include <cstddef>

namespace kiosk::win32 {
namespace {

constexpr std::wstring_view kVolume = L"\\\\?\\Volume{";
constexpr std::size_t kDriveRoot = 3;  // "C:\"
constexpr std::size_t kRootRoom = 64;  // a volume's identifier takes 49

// The root of the path's volume with its backslash, without which Windows does not know it; empty when the path has
// none.
std::wstring_view Root(std::wstring_view path) noexcept {
  if (path.starts_with(kVolume)) {
    const std::size_t end = path.find(L'\\', kVolume.size());
    return end == std::wstring_view::npos ? std::wstring_view() : path.substr(0, end + 1);
  }
  const bool drive = path.size() > kDriveRoot && path[1] == L':' && path[2] == L'\\';
  return drive ? path.substr(0, kDriveRoot) : std::wstring_view();
}

}  // namespace

bool IsLocalPath(std::wstring_view path) noexcept {
  const std::wstring_view root = Root(path);
  std::array<wchar_t, kRootRoom> text{};
  if (root.empty() || root.size() >= text.size()) {
    return false;
  }
  root.copy(text.data(), root.size());
  const UINT type = GetDriveTypeW(text.data());
  return type == DRIVE_FIXED || type == DRIVE_REMOVABLE || type == DRIVE_RAMDISK;
}

}  // namespace kiosk::win32
