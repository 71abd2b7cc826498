#include "win32/secure_folder.h"

#include "win32/clock.h"
#include "win32/file_wait.h"
#include "win32/folder_entries.h"
#include "win32/open_folder.h"
#include "win32/security.h"

#include <aclapi.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <exception>
#include <utility>

namespace kiosk::win32 {
namespace {

constexpr int kMostLevels = 16;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
// With a right that counts in sharing.
constexpr DWORD kHold = FILE_LIST_DIRECTORY | READ_CONTROL | WRITE_DAC | WRITE_OWNER | FILE_READ_ATTRIBUTES;
// Without one: nobody who keeps it open for himself alone is in the way.
constexpr DWORD kLook = READ_CONTROL | FILE_READ_ATTRIBUTES;

// As Windows takes it literally: without a limit of 260 characters, and with the dots and blanks at the end of a name.
using ExactPath = std::array<wchar_t, MAX_PATH>;

// Where a path leads: the open folder around it, and its name in there. `path` lives as long.
struct Place {
  explicit Place(const wchar_t* path) noexcept {
    const std::wstring_view text(path);
    const std::size_t slash = text.find_last_of(L'\\');
    name = text.substr(slash + 1);
    ExactPath around;
    static_cast<void>(std::swprintf(around.data(), around.size(), L"\\\\?\\%.*ls", static_cast<int>(slash), path));
    // What stands right below a drive is Windows' own, or an administrator's. No right is asked for that counts in
    // sharing: anybody may keep C:\ProgramData open for himself alone.
    const bool followed = text.find_last_of(L'\\', slash - 1) == text.find(L'\\');
    folder.Reset(CreateFileW(around.data(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING,
                             FILE_FLAG_BACKUP_SEMANTICS | (followed ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr));
  }

  FileHandle folder;
  std::wstring_view name;
};

bool IsMissing(DWORD error) noexcept { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

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

// Of the folder alone. SetSecurityInfo would open all that is below: what is there may lead anywhere, and whoever has
// an opportunistic lock on it would be waited for.
DWORD SetSecurity(HANDLE folder, SECURITY_INFORMATION parts, const SecurityDescriptor& descriptor) noexcept {
  return descriptor &&
                 SetKernelObjectSecurity(folder, parts | PROTECTED_DACL_SECURITY_INFORMATION, descriptor.Get()) != 0
             ? ERROR_SUCCESS
             : GetLastError();
}

DWORD SetOwnerAndDacl(HANDLE folder, const SecurityDescriptor& descriptor) noexcept {
  const OwnerAndDacl wanted(descriptor.Get());
  return wanted && IsSecured(folder, wanted)
             ? ERROR_SUCCESS
             : SetSecurity(folder, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, descriptor);
}

// Nobody but SYSTEM and Administrators can put anything into it from now on. The owner stays, as the sign of what the
// folder is should it not go, and loses the right to change the list that Windows gives every owner (S-1-3-4, "OWNER
// RIGHTS").
DWORD ShutOut(HANDLE folder) noexcept {
  return SetSecurity(folder, DACL_SECURITY_INFORMATION,
                     SecurityDescriptor(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;;RC;;;S-1-3-4)"));
}

// How deep and how long a removal may still go.
struct Removal {
  Deadline deadline{kRemovalTime};
  int levelsLeft = kMostLevels;
};

bool RemoveIn(HANDLE around, std::wstring_view name, Removal removal);

// The last error is that of what is left.
bool EmptyFolder(HANDLE folder, Removal removal) {
  DWORD error = removal.levelsLeft-- != 0 ? ShutOut(folder) : ERROR_DIR_NOT_EMPTY;
  if (error == ERROR_SUCCESS) {
    for (const std::wstring& name : NamesIn(folder)) {
      error = RemoveIn(folder, name, removal) ? error : GetLastError();
    }
  }
  SetLastError(error);
  return error == ERROR_SUCCESS;
}

bool RemoveIn(HANDLE around, std::wstring_view name, Removal removal) {
  if (removal.deadline.Passed()) {
    SetLastError(ERROR_TIMEOUT);
    return false;
  }
  const FileHandle doomed = OpenIn(around, name, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, kShareAll);
  if (!doomed) {
    return IsMissing(GetLastError());
  }
  if (IsPlainFolder(AttributesOf(doomed.Get()))) {
    const FileHandle folder = OpenIn(around, name, kHold, kShareAll);
    if (!folder || !EmptyFolder(folder.Get(), removal)) {
      return false;
    }
  }
  return Delete(doomed.Get());
}

DWORD Remove(const Place& place, const Deadline& deadline = Deadline(kRemovalTime)) noexcept {
  try {
    return RemoveIn(place.folder.Get(), place.name, {deadline}) ? ERROR_SUCCESS : GetLastError();
  } catch (const std::exception&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
}

DWORD SetAside(const wchar_t* path) noexcept {
  ExactPath from;
  ExactPath to;
  if (std::swprintf(from.data(), from.size(), L"\\\\?\\%ls", path) <= 0 ||
      std::swprintf(to.data(), to.size(), L"\\\\?\\%ls%ls%llu", path, kSetAsideMark, FileTimeNow()) <= 0) {
    return ERROR_FILENAME_EXCED_RANGE;
  }
  const FileWaitLimit limit;
  return limit && MoveFileExW(from.data(), to.data(), 0) != 0 ? ERROR_SUCCESS : GetLastError();
}

// Takes a stranger's folder out of the way.
DWORD Displace(const Place& place, const wchar_t* path, ForeignFolder foreign, bool& setAside) noexcept {
  DWORD error = foreign != ForeignFolder::kSetAside ? Remove(place) : ERROR_SUCCESS;
  if (foreign == ForeignFolder::kSetAside || (error != ERROR_SUCCESS && foreign == ForeignFolder::kRemoveOrSetAside)) {
    error = SetAside(path);
    setAside = error == ERROR_SUCCESS;
  }
  return error;
}

// Opens what stands there, and looks at the open folder: the one that was looked at before may be gone.
DWORD HoldFolder(const Place& place, ForeignFolder foreign, FileHandle& folder) noexcept {
  folder = OpenIn(place.folder.Get(), place.name, kHold, FILE_SHARE_READ | FILE_SHARE_WRITE);
  if (!folder) {
    return GetLastError();
  }
  if (!IsPlainFolder(AttributesOf(folder.Get()))) {
    return ERROR_DIRECTORY;
  }
  return foreign == ForeignFolder::kTakeOver || HasTrustedOwner(folder.Get()) ? ERROR_SUCCESS : ERROR_INVALID_OWNER;
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
  const Place place(path);
  if (!place.folder) {
    return failed(FolderStep::kCreate, GetLastError());
  }
  FileHandle found = OpenIn(place.folder.Get(), place.name, kLook, kShareAll);
  const bool isFolder = found && IsPlainFolder(AttributesOf(found.Get()));
  const bool isStrange = isFolder && foreign != ForeignFolder::kTakeOver && !HasTrustedOwner(found.Get());
  result.replaced = found && !isFolder;
  found.Reset();
  if (result.replaced) {
    if (const DWORD error = Remove(place); error != ERROR_SUCCESS) {
      return failed(FolderStep::kRemove, error);
    }
  }
  const SecurityDescriptor descriptor(sddl);
  if (!descriptor) {
    return failed(FolderStep::kDescriptor, GetLastError());
  }
  if (isStrange) {
    if (const DWORD error = Displace(place, path, foreign, result.setAside); error != ERROR_SUCCESS) {
      return failed(FolderStep::kDisplace, error);
    }
  }
  DWORD error = ERROR_ALREADY_EXISTS;
  if (!isFolder || isStrange) {
    result.folder =
        CreateFolderIn(place.folder.Get(), place.name, kHold, FILE_SHARE_READ | FILE_SHARE_WRITE, descriptor.Get());
    error = result.folder ? ERROR_SUCCESS : GetLastError();
  }
  if (error == ERROR_ALREADY_EXISTS) {
    error = HoldFolder(place, foreign, result.folder);
  } else if (error != ERROR_SUCCESS) {
    return failed(isStrange ? FolderStep::kDisplace : FolderStep::kCreate, error);
  }
  if (error == ERROR_SUCCESS) {
    error = SetOwnerAndDacl(result.folder.Get(), descriptor);
  }
  return error == ERROR_SUCCESS ? std::move(result) : failed(FolderStep::kSecure, error);
}

bool HasTrustedOwner(HANDLE file) noexcept {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                      &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const LocalMemory memory(descriptor);
  return owner != nullptr && (IsWellKnownSid(owner, WinLocalSystemSid) != 0 ||
                              IsWellKnownSid(owner, WinBuiltinAdministratorsSid) != 0 || IsOwnUser(owner));
}

FileHandle OpenAt(const std::wstring& path, DWORD access, DWORD share) noexcept {
  const Place place(path.c_str());
  return place.folder ? OpenIn(place.folder.Get(), place.name, access, share) : FileHandle();
}

std::vector<std::wstring> NamesIn(const std::wstring& folder) {
  const FileHandle open = OpenAt(folder, FILE_LIST_DIRECTORY, kShareAll);
  return open ? NamesIn(open.Get()) : std::vector<std::wstring>();
}

bool RemoveTree(const std::wstring& path, const Deadline& deadline) {
  const Place place(path.c_str());
  const DWORD error = place.folder ? Remove(place, deadline) : GetLastError();
  SetLastError(error);
  return error == ERROR_SUCCESS || IsMissing(error);
}

}  // namespace kiosk::win32
