#include "win32/folder_entries.h"

#include "win32/clock.h"
#include "win32/handle.h"

namespace kiosk::win32 {
namespace {

constexpr DWORD kFolderOrLink = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

}  // namespace

bool IsPlainFile(DWORD attributes) noexcept { return (attributes & kFolderOrLink) == 0; }

bool IsPlainFolder(DWORD attributes) noexcept {
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & kFolderOrLink) == FILE_ATTRIBUTE_DIRECTORY;
}

std::wstring_view FolderEntry::Name() const noexcept {
  return std::wstring_view(path).substr(path.find_last_of(L'\\') + 1);
}

std::vector<FolderEntry> EntriesOf(const std::wstring& folder, const wchar_t* pattern) {
  std::vector<FolderEntry> entries;
  WIN32_FIND_DATAW data;
  const FindHandle find(FindFirstFileW((folder + L"\\" + pattern).c_str(), &data));
  for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.Get(), &data) != 0) {
    const std::wstring_view name = data.cFileName;
    if (name != L"." && name != L"..") {
      entries.push_back({folder + L"\\" + data.cFileName, data.dwFileAttributes,
                         (std::uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow,
                         FileTimeValue(data.ftLastWriteTime)});
    }
  }
  return entries;
}

}  // namespace kiosk::win32
