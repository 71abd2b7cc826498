#include "file_version.h"

#include "win32/owners.h"

#include <winver.h>

#include <cstdio>
#include <cstring>
#include <iterator>

namespace kioskctl {

std::string FileVersion(const std::wstring& path) {
  // The library that has calls for this would be looked for beside this program first.
  const kiosk::win32::Library file(
      LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  const HRSRC resource =
      file ? FindResourceW(file.Get(), MAKEINTRESOURCEW(VS_VERSION_INFO), MAKEINTRESOURCEW(16)) : nullptr;
  const HGLOBAL loaded = resource != nullptr ? LoadResource(file.Get(), resource) : nullptr;
  // Behind three numbers of 16 bits and the name "VS_VERSION_INFO", on a boundary of 32 bits.
  constexpr std::size_t kFixedInfoAt = 40;
  VS_FIXEDFILEINFO info{};
  if (loaded == nullptr || SizeofResource(file.Get(), resource) < kFixedInfoAt + sizeof(info)) {
    return "unknown";
  }
  std::memcpy(&info, static_cast<const char*>(LockResource(loaded)) + kFixedInfoAt, sizeof(info));
  if (info.dwSignature != 0xFEEF04BD) {
    return "unknown";
  }
  char text[32];
  static_cast<void>(std::snprintf(text, std::size(text), "%04u-%02u-%02u-%04u", HIWORD(info.dwFileVersionMS),
                                  LOWORD(info.dwFileVersionMS), HIWORD(info.dwFileVersionLS),
                                  LOWORD(info.dwFileVersionLS)));
  return text;
}

}  // namespace kioskctl
