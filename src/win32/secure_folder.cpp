#include "win32/secure_folder.h"

#include "win32/clock.h"
#include "win32/privilege.h"
#include "win32/security.h"

#include <aclapi.h>

#include <array>
#include <cstddef>
#include <cwchar>
#include <utility>

namespace kiosk::win32 {
namespace {

bool IsPlainFolder(DWORD attributes) noexcept {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

// Without following links. Asks for a right that counts in sharing, so that it fails while anybody else holds the folder
// open for renaming or deleting it, and keeps them from it afterwards.
FileHandle OpenFolder(const wchar_t* path) noexcept {
  return FileHandle(CreateFileW(path, FILE_LIST_DIRECTORY | READ_CONTROL | WRITE_DAC | WRITE_OWNER | FILE_READ_ATTRIBUTES,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// Opens and looks again at what it is: between the first look and the opening somebody may have swapped it. A folder whose
// own DACL shuts this account out is opened by the right of the privileges.
DWORD HoldFolder(const wchar_t* path, FileHandle& folder) noexcept {
  folder = OpenFolder(path);
  if (!folder && GetLastError() == ERROR_ACCESS_DENIED) {
    for (const wchar_t* privilege : {SE_BACKUP_NAME, SE_RESTORE_NAME, SE_TAKE_OWNERSHIP_NAME}) {
      EnablePrivilege(privilege);
    }
    folder = OpenFolder(path);
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (!folder || GetFileInformationByHandle(folder.Get(), &info) == 0) {
    return GetLastError();
  }
  return IsPlainFolder(info.dwFileAttributes) ? ERROR_SUCCESS : ERROR_DIRECTORY;
}

// This process's own account.
bool IsOwnUser(PSID sid) noexcept {
  KernelHandle token;
  alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user;
  DWORD size = user.size();
  return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Put()) != 0 &&
         GetTokenInformation(token.Get(), TokenUser, user.data(), size, &size) != 0 &&
         EqualSid(sid, reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid) != 0;
}

// SYSTEM, Administrators, or whoever runs this program. An owner that cannot be read counts as foreign.
bool HasTrustedOwner(HANDLE folder) noexcept {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                      &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const LocalMemory memory(descriptor);
  return owner != nullptr && (IsWellKnownSid(owner, WinLocalSystemSid) != 0 ||
                              IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 || IsOwnUser(owner));
}

DWORD SetOwnerAndDacl(HANDLE folder, const SecurityDescriptor& descriptor) noexcept {
  PSID owner = nullptr;
  PACL dacl = nullptr;
  BOOL defaulted = FALSE;
  BOOL present = FALSE;
  if (GetSecurityDescriptorOwner(descriptor.Get(), &owner, &defaulted) == 0 ||
      GetSecurityDescriptorDacl(descriptor.Get(), &present, &dacl, &defaulted) == 0) {
    return GetLastError();
  }
  return SetSecurityInfo(
      folder, SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, owner, nullptr,
      dacl, nullptr);
}

bool SetAside(const wchar_t* path) noexcept {
  std::array<wchar_t, MAX_PATH> aside;
  const int length = std::swprintf(aside.data(), aside.size(), L"%ls.untrusted-%llu", path, FileTimeNow());
  return length > 0 && MoveFileExW(path, aside.data(), 0) != 0;
}

}  // namespace

FolderResult SecureFolder(const wchar_t* path, const wchar_t* sddl, ForeignFolder foreign) noexcept {
  FolderResult result;
  const auto failed = [&result](FolderStep step, DWORD error) {
    result.failedAt = step;
    result.error = error;
    result.folder.Reset();
    return std::move(result);
  };
  const DWORD attributes = GetFileAttributesW(path);
  if (attributes != INVALID_FILE_ATTRIBUTES && !IsPlainFolder(attributes)) {
    result.replaced = true;
    const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if ((folder ? RemoveDirectoryW(path) : DeleteFileW(path)) == 0) {
      return failed(FolderStep::kRemove, GetLastError());
    }
  }
  const SecurityDescriptor descriptor(sddl);
  if (!descriptor) {
    return failed(FolderStep::kDescriptor, GetLastError());
  }
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  const bool existed = CreateDirectoryW(path, &security) == 0;
  if (existed && GetLastError() != ERROR_ALREADY_EXISTS) {
    return failed(FolderStep::kCreate, GetLastError());
  }
  DWORD error = HoldFolder(path, result.folder);
  if (error == ERROR_SUCCESS && existed && foreign == ForeignFolder::kSetAside &&
      !HasTrustedOwner(result.folder.Get())) {
    result.folder.Reset();
    if (!SetAside(path) || CreateDirectoryW(path, &security) == 0) {
      return failed(FolderStep::kCreate, GetLastError());
    }
    error = HoldFolder(path, result.folder);
  }
  if (error == ERROR_SUCCESS) {
    error = SetOwnerAndDacl(result.folder.Get(), descriptor);
  }
  return error == ERROR_SUCCESS ? std::move(result) : failed(FolderStep::kSecure, error);
}

}  // namespace kiosk::win32
