#include "win32/secure_folder.h"

#include "win32/handle.h"
#include "win32/security.h"

#include <aclapi.h>

namespace kiosk::win32 {
namespace {

bool IsPlainFolder(DWORD attributes) noexcept {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

// Opens without following links and looks again: between the first look and the opening somebody may have swapped it.
DWORD SetOwnerAndDacl(const wchar_t* path, const SecurityDescriptor& descriptor) noexcept {
  const FileHandle folder(CreateFileW(path, READ_CONTROL | WRITE_DAC | WRITE_OWNER | FILE_READ_ATTRIBUTES,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!folder) {
    return GetLastError();
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileInformationByHandle(folder.Get(), &info) == 0) {
    return GetLastError();
  }
  if (!IsPlainFolder(info.dwFileAttributes)) {
    return ERROR_DIRECTORY;
  }
  PSID owner = nullptr;
  PACL dacl = nullptr;
  BOOL defaulted = FALSE;
  BOOL present = FALSE;
  if (GetSecurityDescriptorOwner(descriptor.Get(), &owner, &defaulted) == 0 ||
      GetSecurityDescriptorDacl(descriptor.Get(), &present, &dacl, &defaulted) == 0) {
    return GetLastError();
  }
  return SetSecurityInfo(
      folder.Get(), SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, owner, nullptr,
      dacl, nullptr);
}

}  // namespace

FolderResult SecureFolder(const wchar_t* path, const wchar_t* sddl) noexcept {
  FolderResult result;
  const auto failed = [&result](FolderStep step, DWORD error) {
    result.failedAt = step;
    result.error = error;
    return result;
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
  if (CreateDirectoryW(path, &security) == 0 && GetLastError() != ERROR_ALREADY_EXISTS) {
    return failed(FolderStep::kCreate, GetLastError());
  }
  const DWORD error = SetOwnerAndDacl(path, descriptor);
  return error == ERROR_SUCCESS ? result : failed(FolderStep::kSecure, error);
}

}  // namespace kiosk::win32
