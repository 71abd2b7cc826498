#include "win32/secure_folder.h"

#include "win32/clock.h"
#include "win32/privilege.h"
#include "win32/security.h"

#include <aclapi.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <utility>

namespace kiosk::win32 {
namespace {

constexpr int kMostLevels = 16;

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

// What a descriptor says, as pointers into it; null for what it does not hold.
struct OwnerAndDacl {
  explicit OwnerAndDacl(PSECURITY_DESCRIPTOR descriptor) noexcept {
    BOOL defaulted = FALSE;
    BOOL present = FALSE;
    DWORD revision = 0;
    if (GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) == 0 ||
        GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) == 0 || present == FALSE ||
        GetSecurityDescriptorControl(descriptor, &control, &revision) == 0) {
      owner = nullptr;
    }
  }
  explicit operator bool() const noexcept { return owner != nullptr && dacl != nullptr; }

  PSID owner = nullptr;
  PACL dacl = nullptr;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
};

bool SameEntries(PACL left, PACL right) noexcept {
  if (left->AceCount != right->AceCount) {
    return false;
  }
  for (DWORD i = 0; i < left->AceCount; ++i) {
    void* one = nullptr;
    void* other = nullptr;
    if (GetAce(left, i, &one) == 0 || GetAce(right, i, &other) == 0 ||
        static_cast<ACE_HEADER*>(one)->AceSize != static_cast<ACE_HEADER*>(other)->AceSize ||
        std::memcmp(one, other, static_cast<ACE_HEADER*>(one)->AceSize) != 0) {
      return false;
    }
  }
  return true;
}

bool IsSecured(HANDLE folder, const OwnerAndDacl& wanted) noexcept {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(folder, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, nullptr,
                      nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const LocalMemory memory(descriptor);
  const OwnerAndDacl found(descriptor);
  return found && (found.control & SE_DACL_PROTECTED) != 0 && EqualSid(found.owner, wanted.owner) != 0 &&
         SameEntries(found.dacl, wanted.dacl);
}

// Setting a DACL makes Windows walk through everything below the folder, so it is done only where something differs.
DWORD SetOwnerAndDacl(HANDLE folder, const SecurityDescriptor& descriptor) noexcept {
  const OwnerAndDacl wanted(descriptor.Get());
  if (!wanted) {
    return ERROR_INVALID_SECURITY_DESCR;
  }
  if (IsSecured(folder, wanted)) {
    return ERROR_SUCCESS;
  }
  return SetSecurityInfo(
      folder, SE_FILE_OBJECT,
      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, wanted.owner,
      nullptr, wanted.dacl, nullptr);
}

// A file, an empty folder, or a link.
bool RemoveOne(const wchar_t* path, DWORD attributes) noexcept {
  const auto remove = [&] {
    return ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? RemoveDirectoryW(path) : DeleteFileW(path)) != 0;
  };
  if (remove()) {
    return true;
  }
  return GetLastError() == ERROR_ACCESS_DENIED && (attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
         SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL) != 0 && remove();
}

bool RemoveLevel(const std::wstring& path, int levelsLeft) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    return GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND;
  }
  if (IsPlainFolder(attributes)) {
    if (levelsLeft == 0) {
      SetLastError(ERROR_DIR_NOT_EMPTY);
      return false;
    }
    const FolderResult held = SecureFolder(path.c_str(), kPrivateFolderSddl, ForeignFolder::kTakeOver);
    if (!held) {
      SetLastError(held.error);
      return false;
    }
    DWORD error = ERROR_SUCCESS;
    for (const std::wstring& name : NamesIn(path)) {
      error = RemoveLevel(path + L"\\" + name, levelsLeft - 1) ? error : GetLastError();
    }
    if (error != ERROR_SUCCESS) {
      SetLastError(error);
      return false;
    }
  }
  return RemoveOne(path.c_str(), attributes);
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
    if (!RemoveOne(path, attributes)) {
      return failed(FolderStep::kRemove, GetLastError());
    }
  }
  const SecurityDescriptor descriptor(sddl);
  if (!descriptor) {
    return failed(FolderStep::kDescriptor, GetLastError());
  }
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  const bool stands = attributes != INVALID_FILE_ATTRIBUTES && IsPlainFolder(attributes);
  const bool existed = stands || CreateDirectoryW(path, &security) == 0;
  if (existed && !stands && GetLastError() != ERROR_ALREADY_EXISTS) {
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

bool HasTrustedOwner(HANDLE file) noexcept {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr, &descriptor) !=
      ERROR_SUCCESS) {
    return false;
  }
  const LocalMemory memory(descriptor);
  return owner != nullptr && (IsWellKnownSid(owner, WinLocalSystemSid) != 0 ||
                              IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 || IsOwnUser(owner));
}

std::vector<std::wstring> NamesIn(const std::wstring& folder) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  const FindHandle search(FindFirstFileW((folder + L"\\*").c_str(), &data));
  for (bool more = static_cast<bool>(search); more; more = FindNextFileW(search.Get(), &data) != 0) {
    std::wstring name = data.cFileName;
    if (name != L"." && name != L"..") {
      names.push_back(std::move(name));
    }
  }
  return names;
}

bool RemoveTree(const std::wstring& path) { return RemoveLevel(path, kMostLevels); }

}  // namespace kiosk::win32
