#include "sim/files.h"

#include "log/day_files.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <aclapi.h>
#include <sddl.h>
#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

namespace sim {
namespace {

constexpr wchar_t kLinks[] = L"Links";
constexpr wchar_t kOwners[] = L"FileOwner";
constexpr wchar_t kDacls[] = L"FileDacl";

std::mutex mutex;
std::map<HANDLE, std::wstring> searches;  // the folder that an open search goes through

std::atomic<bool> shorten{false};
std::wstring shortPath;
DWORD shortSize = 0;

std::wstring Lower(std::wstring path) {
  CharLowerW(path.data());
  return path;
}

// Absolute and without the prefix for long paths.
std::wstring Full(const std::wstring& path) {
  wchar_t full[1024];
  const DWORD length = GetFullPathNameW(path.c_str(), 1024, full, nullptr);
  const std::wstring text(full, length < 1024 ? length : 0);
  return text.starts_with(L"\\\\?\\") ? text.substr(4) : text;
}

// The name of a path in the machine's areas.
std::wstring Plain(const std::wstring& path) { return Lower(Full(path)); }

std::wstring PathOf(HANDLE file) {
  wchar_t path[1024];
  const DWORD length = GetFinalPathNameByHandleW(file, path, 1024, FILE_NAME_NORMALIZED);
  return length == 0 || length >= 1024 ? L"" : Plain(path);
}

bool IsLink(const std::wstring& plain) { return ReadText(kLinks, plain).has_value(); }

// The path that Windows would reach: links in the middle are followed, a link at the end when `last`.
std::wstring Resolve(const wchar_t* given, bool last) {
  if (given == nullptr || std::wstring_view(given).starts_with(L"\\\\.\\") || !AreaExists(kLinks)) {
    return given != nullptr ? given : L"";
  }
  std::wstring path = Full(given);
  bool followed = false;
  for (int hops = 0; hops < 8; ++hops) {
    const std::wstring plain = Lower(path);
    const auto links = ValueNames(kLinks);
    const auto link = std::find_if(links.begin(), links.end(), [&](const std::wstring& each) {
      return (last && plain == each) || plain.starts_with(each + L"\\");
    });
    if (link == links.end()) {
      break;
    }
    path = ReadText(kLinks, *link).value_or(L"") + path.substr(link->size());
    followed = true;
  }
  return followed ? path : given;
}

void Forget(const std::wstring& path) {
  const std::wstring plain = Plain(path);
  for (const wchar_t* area : {kLinks, kOwners, kDacls}) {
    ForgetValue(area, plain);
  }
}

std::wstring PartText(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts) {
  wchar_t* text = nullptr;
  if (descriptor == nullptr ||
      !ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts, &text, nullptr)) {
    return L"";
  }
  std::wstring result = text;
  LocalFree(text);
  return result;
}

// The rights that a handle must carry for the parts that it sets.
bool HandleAllows(HANDLE file, SECURITY_INFORMATION parts) {
  PUBLIC_OBJECT_BASIC_INFORMATION information{};
  NtQueryObject(file, ObjectBasicInformation, &information, sizeof(information), nullptr);
  const DWORD needed = ((parts & OWNER_SECURITY_INFORMATION) != 0 ? WRITE_OWNER : 0U) |
                       ((parts & DACL_SECURITY_INFORMATION) != 0 ? WRITE_DAC : 0U);
  return (information.GrantedAccess & needed) == needed;
}

DWORD KeepSecurity(const std::wstring& plain, SECURITY_INFORMATION parts, PSID owner, PACL dacl) {
  return Change<DWORD>("SetSecurityInfo", plain, [&]() -> DWORD {
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    if ((parts & OWNER_SECURITY_INFORMATION) != 0) {
      SetSecurityDescriptorOwner(&descriptor, owner, FALSE);
      WriteText(kOwners, plain, PartText(&descriptor, OWNER_SECURITY_INFORMATION));
    }
    if ((parts & DACL_SECURITY_INFORMATION) != 0) {
      const bool isProtected = (parts & PROTECTED_DACL_SECURITY_INFORMATION) != 0;
      SetSecurityDescriptorDacl(&descriptor, TRUE, dacl, FALSE);
      SetSecurityDescriptorControl(
          &descriptor, SE_DACL_PROTECTED | SE_DACL_AUTO_INHERITED,
          static_cast<SECURITY_DESCRIPTOR_CONTROL>(SE_DACL_AUTO_INHERITED | (isProtected ? SE_DACL_PROTECTED : 0)));
      WriteText(kDacls, plain, PartText(&descriptor, DACL_SECURITY_INFORMATION));
    }
    return ERROR_SUCCESS;
  });
}

// A file of the log's spool.
bool InSpool(const std::wstring& plain) {
  return plain.starts_with(Lower(kiosk::log::kLogRoot) + L"\\drop\\") && plain.ends_with(L".gelf");
}

// A numbered call on a path, files of the log excepted unless they are of its spool.
template <typename Call>
BOOL ChangeFile(const char* function, const std::wstring& path, Call call) {
  const std::wstring plain = Plain(path);
  if ((plain + L"\\").starts_with(Lower(kiosk::log::kLogRoot) + L"\\") && !InSpool(plain)) {
    return call();
  }
  return Change<BOOL>(function, plain, call);
}

// The same on an open file; pipes and the like do not count.
template <typename Call>
BOOL ChangeOpenFile(const char* function, HANDLE file, Call call) {
  const std::wstring path = ChangePoint::Armed() ? PathOf(file) : L"";
  return path.empty() ? call() : ChangeFile(function, path, call);
}

template <typename Call>
BOOL ChangeAndForget(const char* function, const wchar_t* given, Call call) {
  const std::wstring path = Resolve(given, false);
  return ChangeFile(function, path, [&]() -> BOOL {
    const BOOL done = call(path.c_str());
    if (done) {
      Forget(path);
    }
    return done;
  });
}

void MarkLink(HANDLE search, WIN32_FIND_DATAW* data) {
  if (IsLink(searches[search] + L"\\" + Lower(data->cFileName))) {
    data->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    data->dwReserved0 = IO_REPARSE_TAG_MOUNT_POINT;
  }
}

}  // namespace

std::wstring FileSecurity(const std::wstring& path) {
  const std::wstring plain = Plain(path);
  return ReadText(kOwners, plain).value_or(L"") + ReadText(kDacls, plain).value_or(L"");
}

void SetFileSecurity(const std::wstring& path, const std::wstring& owner, const std::wstring& dacl) {
  WriteText(kOwners, Plain(path), owner);
  WriteText(kDacls, Plain(path), dacl);
}

void MakeJunction(const std::wstring& path, const std::wstring& target) {
  if (!CreateDirectoryW(path.c_str(), nullptr)) {
    Violation("the junction %s cannot be made (%lu)", Narrow(path).c_str(), GetLastError());
  }
  WriteText(kLinks, Plain(path), target);
}

void MakeSymbolicLink(const std::wstring& path, const std::wstring& target) {
  CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  WriteText(kLinks, Plain(path), target);
}

void ShortenNextWrite(const std::wstring& pathEnd, DWORD bytes) {
  shortPath = Lower(pathEnd);
  shortSize = bytes;
  shorten = true;
}

std::wstring SddlText(PSECURITY_DESCRIPTOR descriptor) {
  return PartText(descriptor, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION);
}

}  // namespace sim

using namespace sim;

SIM(DWORD, SetSecurityInfo, HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner, PSID group,
    PACL dacl, PACL sacl) {
  if (type != SE_FILE_OBJECT) {
    return ::SetSecurityInfo(object, type, parts, owner, group, dacl, sacl);
  }
  const std::wstring path = PathOf(object);
  if (path.empty()) {
    return ERROR_INVALID_HANDLE;
  }
  return HandleAllows(object, parts) ? KeepSecurity(path, parts, owner, dacl) : ERROR_ACCESS_DENIED;
}

// Owner and DACL: the simulated machine knows whom a path was given to; a path that nobody set is the program's own.
SIM(DWORD, GetSecurityInfo, HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID* owner, PSID* group,
    PACL* dacl, PACL* sacl, PSECURITY_DESCRIPTOR* descriptor) {
  const std::wstring path = type == SE_FILE_OBJECT ? Plain(PathOf(object)) : L"";
  const bool known = ReadText(kOwners, path).has_value();
  if ((parts & ~DWORD{OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION}) != 0 || !known) {
    return ::GetSecurityInfo(object, type, parts, owner, group, dacl, sacl, descriptor);
  }
  const std::wstring sddl =
      ReadText(kOwners, path).value_or(L"") +
      ((parts & DACL_SECURITY_INFORMATION) != 0 ? ReadText(kDacls, path).value_or(L"") : std::wstring());
  BOOL defaulted = FALSE;
  PSID found = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, descriptor, nullptr) ||
      !GetSecurityDescriptorOwner(*descriptor, &found, &defaulted)) {
    return GetLastError();
  }
  if (owner != nullptr) {
    *owner = found;
  }
  return ERROR_SUCCESS;
}

SIM(WINBOOL, CreateDirectoryW, LPCWSTR given, LPSECURITY_ATTRIBUTES security) {
  const std::wstring path = Resolve(given, false);
  return ChangeFile("CreateDirectoryW", path, [&]() -> BOOL {
    const BOOL done = ::CreateDirectoryW(path.c_str(), nullptr);
    const DWORD error = GetLastError();
    if (done && security != nullptr && security->lpSecurityDescriptor != nullptr) {
      const PSECURITY_DESCRIPTOR descriptor = security->lpSecurityDescriptor;
      SetFileSecurity(path, PartText(descriptor, OWNER_SECURITY_INFORMATION),
                      PartText(descriptor, DACL_SECURITY_INFORMATION));
    }
    SetLastError(error);
    return done;
  });
}

SIM(WINBOOL, RemoveDirectoryW, LPCWSTR path) {
  return ChangeAndForget("RemoveDirectoryW", path, [](const wchar_t* real) { return ::RemoveDirectoryW(real); });
}

SIM(WINBOOL, DeleteFileW, LPCWSTR path) {
  return ChangeAndForget("DeleteFileW", path, [](const wchar_t* real) { return ::DeleteFileW(real); });
}

SIM(WINBOOL, SetFileAttributesW, LPCWSTR path, DWORD attributes) {
  const std::wstring real = Resolve(path, false);
  return ChangeFile("SetFileAttributesW", real, [&] { return ::SetFileAttributesW(real.c_str(), attributes); });
}

SIM(WINBOOL, MoveFileExW, LPCWSTR from, LPCWSTR to, DWORD flags) {
  const std::wstring target = Resolve(to, false);
  return ChangeAndForget("MoveFileExW", from, [&](const wchar_t* real) {
    const BOOL done = ::MoveFileExW(real, to != nullptr ? target.c_str() : nullptr, flags);
    if (done && to != nullptr) {
      Forget(target);
    }
    return done;
  });
}

SIM(WINBOOL, FlushFileBuffers, HANDLE file) {
  return ChangeOpenFile("FlushFileBuffers", file, [&] { return ::FlushFileBuffers(file); });
}

SIM(WINBOOL, MoveFileW, LPCWSTR from, LPCWSTR to) { return sim_MoveFileExW(from, to, MOVEFILE_COPY_ALLOWED); }

SIM(HANDLE, CreateFileW, LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
    DWORD flags, HANDLE model) {
  const std::wstring real = Resolve(path, (flags & FILE_FLAG_OPEN_REPARSE_POINT) == 0);
  HANDLE file = INVALID_HANDLE_VALUE;
  const auto open = [&]() -> BOOL {
    file = ::CreateFileW(real.c_str(), access, share, security, disposition, flags, model);
    return file != INVALID_HANDLE_VALUE;
  };
  disposition == CREATE_NEW ? ChangeFile("CreateFileW", real, open) : open();
  return file;
}

// In the spool a write is two changes, so that one can end in the middle. Success is no promise that all was taken: the
// page has the number written for that, and names a case of its own where it is smaller.
SIM(WINBOOL, WriteFile, HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
  if (shorten && overlapped == nullptr && PathOf(file).ends_with(shortPath) && shorten.exchange(false)) {
    return ::WriteFile(file, data, std::min(size, shortSize), written, nullptr);
  }
  if (!ChangePoint::Armed() || overlapped != nullptr || !InSpool(PathOf(file))) {
    return ChangeOpenFile("WriteFile", file, [&] { return ::WriteFile(file, data, size, written, overlapped); });
  }
  const DWORD half = size / 2;
  DWORD second = 0;
  const BOOL done =
      ChangeFile("WriteFile", PathOf(file), [&] { return ::WriteFile(file, data, half, written, nullptr); }) &&
      ChangeFile("WriteFile", PathOf(file), [&] {
        return ::WriteFile(file, static_cast<const char*>(data) + half, size - half, &second, nullptr);
      });
  *written += second;
  return done;
}

SIM(WINBOOL, SetFileInformationByHandle, HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID data, DWORD size) {
  const auto set = [&] { return ::SetFileInformationByHandle(file, kind, data, size); };
  return ChangePoint::Armed() && InSpool(PathOf(file)) ? ChangeFile("SetFileInformationByHandle", PathOf(file), set)
                                                       : set();
}

// As much room as the area "Disk" says; the development machine's own otherwise.
SIM(WINBOOL, GetDiskFreeSpaceExW, LPCWSTR folder, PULARGE_INTEGER available, PULARGE_INTEGER total,
    PULARGE_INTEGER free) {
  const BOOL done = ::GetDiskFreeSpaceExW(folder, available, total, free);
  if (const std::optional<DWORD> megabytes = ReadNumber(L"Disk", L"FreeMB"); done && megabytes) {
    available->QuadPart = std::uint64_t{*megabytes} * 1024 * 1024;
  }
  return done;
}

SIM(DWORD, GetFileAttributesW, LPCWSTR path) {
  const std::wstring real = Resolve(path, false);
  const DWORD attributes = ::GetFileAttributesW(real.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && IsLink(Plain(real)) ? attributes | FILE_ATTRIBUTE_REPARSE_POINT
                                                                      : attributes;
}

SIM(WINBOOL, GetFileInformationByHandle, HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
  const BOOL done = ::GetFileInformationByHandle(file, information);
  if (done && AreaExists(kLinks) && IsLink(PathOf(file))) {
    information->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  }
  return done;
}

SIM(HANDLE, FindFirstFileW, LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
  const std::wstring real = Resolve(pattern, false);
  HANDLE search = ::FindFirstFileW(real.c_str(), data);
  if (search != INVALID_HANDLE_VALUE) {
    const std::lock_guard guard(mutex);
    searches[search] = Plain(real.substr(0, real.find_last_of(L'\\')));
    MarkLink(search, data);
  }
  return search;
}

SIM(WINBOOL, FindNextFileW, HANDLE search, LPWIN32_FIND_DATAW data) {
  const BOOL found = ::FindNextFileW(search, data);
  if (found) {
    const std::lock_guard guard(mutex);
    MarkLink(search, data);
  }
  return found;
}

SIM(WINBOOL, FindClose, HANDLE search) {
  const std::lock_guard guard(mutex);
  searches.erase(search);
  return ::FindClose(search);
}
