// What a folder holds, as Windows lists it.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::win32 {

// Neither folder nor link.
bool IsPlainFile(DWORD attributes) noexcept;
// A folder that is no link; false for INVALID_FILE_ATTRIBUTES.
bool IsPlainFolder(DWORD attributes) noexcept;

struct FolderEntry {
  std::wstring path;  // the folder's, as it was given, and the name
  DWORD attributes;
  std::uint64_t size;       // bytes
  std::uint64_t lastWrite;  // 100 ns units since 1601

  [[nodiscard]] std::wstring_view Name() const noexcept;
};

// What is in the folder under a name that matches the pattern ("*.log"), "." and ".." left out; nothing when it cannot
// be listed. A link on the way is followed: for folders that are held, so that none can be put there
// (win32/secure_folder.h).
std::vector<FolderEntry> EntriesOf(const std::wstring& folder, const wchar_t* pattern = L"*");

}  // namespace kiosk::win32
