#include "win32/open_folder.h"

#include "win32/file_wait.h"
#include "win32/privilege.h"

#include <winternl.h>

#include <cstddef>

namespace kiosk::win32 {
namespace {

constexpr NTSTATUS kInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS kOplockBreakInProgress = 0x108;
// Class FileDispositionInfoEx, which the headers number only for later versions of Windows than they are asked for.
constexpr auto kDispositionEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

FileHandle Reach(HANDLE folder, std::wstring_view name, DWORD access, DWORD share, ULONG disposition, ULONG options,
                 PSECURITY_DESCRIPTOR security) noexcept {
  const auto size = static_cast<USHORT>(name.size() * sizeof(wchar_t));
  UNICODE_STRING text{size, size, const_cast<wchar_t*>(name.data())};
  HANDLE file = nullptr;
  NTSTATUS status = 0;
  // The Windows 10 of 2015 does not know OBJ_DONT_REPARSE.
  for (const ULONG flags : {ULONG{OBJ_CASE_INSENSITIVE | OBJ_DONT_REPARSE}, ULONG{OBJ_CASE_INSENSITIVE}}) {
    OBJECT_ATTRIBUTES object;
    InitializeObjectAttributes(&object, &text, flags, folder, security);
    IO_STATUS_BLOCK done{};
    status =
        NtCreateFile(&file, access | SYNCHRONIZE, &object, &done, nullptr, FILE_ATTRIBUTE_NORMAL, share, disposition,
                     options | FILE_OPEN_FOR_BACKUP_INTENT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (status != kInvalidParameter) {
      break;
    }
  }
  if (status < 0) {
    SetLastError(RtlNtStatusToDosError(status));
    return {};
  }
  FileHandle opened(file);
  if (status == kOplockBreakInProgress) {
    opened.Reset();
    SetLastError(ERROR_SHARING_VIOLATION);
  }
  return opened;
}

FileHandle OpenPlainly(HANDLE folder, std::wstring_view name, DWORD access, DWORD share) noexcept {
  return Reach(folder, name, access, share, FILE_OPEN, FILE_OPEN_REPARSE_POINT | FILE_COMPLETE_IF_OPLOCKED, nullptr);
}

}  // namespace

FileHandle OpenIn(HANDLE folder, std::wstring_view name, DWORD access, DWORD share) noexcept {
  FileHandle file = OpenPlainly(folder, name, access, share);
  if (!file && GetLastError() == ERROR_ACCESS_DENIED) {
    for (const wchar_t* privilege : {SE_BACKUP_NAME, SE_RESTORE_NAME, SE_TAKE_OWNERSHIP_NAME}) {
      EnablePrivilege(privilege);
    }
    file = OpenPlainly(folder, name, access, share);
  }
  return file;
}

FileHandle CreateFolderIn(HANDLE folder, std::wstring_view name, DWORD access, DWORD share,
                          PSECURITY_DESCRIPTOR security) noexcept {
  return Reach(folder, name, access, share, FILE_CREATE, FILE_DIRECTORY_FILE, security);
}

DWORD AttributesOf(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION info;
  return GetFileInformationByHandle(file, &info) != 0 ? info.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

std::vector<std::wstring> NamesIn(HANDLE folder) {
  std::vector<std::wstring> names;
  std::vector<LARGE_INTEGER> buffer(4096);  // aligned as the entries are
  const auto size = static_cast<DWORD>(buffer.size() * sizeof(LARGE_INTEGER));
  for (auto kind = FileIdBothDirectoryRestartInfo; GetFileInformationByHandleEx(folder, kind, buffer.data(), size) != 0;
       kind = FileIdBothDirectoryInfo) {
    const auto* at = reinterpret_cast<const std::byte*>(buffer.data());
    for (DWORD next = 1; next != 0; at += next) {
      const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(at);
      const std::wstring_view name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
      if (name != L"." && name != L"..") {
        names.emplace_back(name);
      }
      next = entry->NextEntryOffset;
    }
  }
  return names;
}

bool Delete(HANDLE file) noexcept {
  const FileWaitLimit limit;
  if (!limit) {
    return false;
  }
  if (const DWORD attributes = AttributesOf(file);
      attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0) {
    FILE_BASIC_INFO basic{};  // zero: the times stay
    basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    SetFileInformationByHandle(file, FileBasicInfo, &basic, sizeof(basic));
  }
  FILE_DISPOSITION_INFO_EX posix{FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS};
  if (SetFileInformationByHandle(file, kDispositionEx, &posix, sizeof(posix)) != 0) {
    return true;
  }
  // The plain way leaves the name taken while somebody else has the file open, so it is only for where there is no
  // other.
  const DWORD error = GetLastError();
  if (error != ERROR_INVALID_PARAMETER && error != ERROR_INVALID_FUNCTION && error != ERROR_NOT_SUPPORTED &&
      error != ERROR_CALL_NOT_IMPLEMENTED) {
    return false;
  }
  FILE_DISPOSITION_INFO plain{TRUE};
  return SetFileInformationByHandle(file, FileDispositionInfo, &plain, sizeof(plain)) != 0;
}

}  // namespace kiosk::win32
