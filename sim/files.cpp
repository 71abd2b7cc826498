#include "sim/files.h"

#include "sim/files_internal.h"
#include "sim/leases.h"
#include "sim/machine.h"
#include "sim/program_files.h"
#include "state/folders.h"

#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

namespace sim {
namespace {

std::atomic<bool> shorten{false};
std::wstring shortPath;
DWORD shortSize = 0;
std::mutex mutex;
std::map<HANDLE, std::wstring> searches;  // the folder that an open search goes through

// Absolute and without the prefix for long paths.
std::wstring Full(const std::wstring& path) {
  wchar_t full[1024];
  const DWORD length = GetFullPathNameW(path.c_str(), 1024, full, nullptr);
  const std::wstring text(full, length < 1024 ? length : 0);
  return text.starts_with(L"\\\\?\\") ? text.substr(4) : text;
}

// Empty when it cannot be opened. Shares everything, as a search does not: whoever is about to delete the folder is not
// in the way.
std::optional<std::vector<std::wstring>> PathsIn(const std::wstring& folder) {
  std::vector<std::wstring> paths;
  HANDLE open = ::CreateFileW(folder.c_str(), FILE_LIST_DIRECTORY, 7, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (open == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  alignas(8) char buffer[2048];
  while (GetFileInformationByHandleEx(open, FileIdBothDirectoryInfo, buffer, sizeof(buffer))) {
    const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer);
    for (DWORD next = 1; next != 0;
         entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(reinterpret_cast<const char*>(entry) + next)) {
      const std::wstring name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
      if (name != L"." && name != L"..") {
        paths.push_back(folder + L"\\" + name);
      }
      next = entry->NextEntryOffset;
    }
  }
  CloseHandle(open);
  return paths;
}

bool IsEmptyFolder(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  const auto paths = PathsIn(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && paths &&
         paths->empty();
}

// Whether anything below the folder is open, as far as whoever opened it does not share all.
bool HasOpenFiles(const std::wstring& folder) {
  const std::vector<std::wstring> paths = PathsIn(folder).value_or(std::vector<std::wstring>());
  return std::any_of(paths.begin(), paths.end(), [](const std::wstring& path) {
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    const bool open = file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION;
    CloseHandle(file);
    return open || HasOpenFiles(path);
  });
}

}  // namespace

std::wstring Lower(std::wstring path) {
  CharLowerW(path.data());
  return path;
}

std::wstring Plain(const std::wstring& path) { return Lower(Full(path)); }

std::wstring PathOf(HANDLE file) {
  wchar_t path[1024];
  const DWORD length = GetFinalPathNameByHandleW(file, path, 1024, FILE_NAME_NORMALIZED);
  if (length != 0 && length < 1024) {
    return Plain(path);
  }
  // Wine's function has no room for more than MAX_PATH.
  struct {
    FILE_NAME_INFO info;
    wchar_t rest[1024];
  } name{};
  return GetFileInformationByHandleEx(file, FileNameInfo, &name, sizeof(name)) != 0
             ? Lower(L"C:" + std::wstring(name.info.FileName, name.info.FileNameLength / sizeof(wchar_t)))
             : L"";
}

bool IsLink(const std::wstring& plain) { return ReadText(kLinks, plain).has_value(); }

void UseKeptHandles() {
  for (const std::wstring& path : ValueNames(kKept)) {
    if (!IsLink(path) && IsEmptyFolder(path)) {
      WriteText(kLinks, path, ReadText(kKept, path).value_or(L""));
    }
  }
}

bool IsPending(const std::wstring& path) { return ReadText(kPending, Plain(path)).has_value(); }

unsigned KindOfOpening(const std::wstring& path, bool existing) {
  if (::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) {
    return kOpens;
  }
  return existing ? kLooks : kMakes;
}

std::wstring Resolve(const wchar_t* given, bool last) {
  UseKeptHandles();
  if (given != nullptr && wcslen(given) >= MAX_PATH && !std::wstring_view(given).starts_with(L"\\\\?\\")) {
    return L"C:\\longer than MAX_PATH\\x";  // ERROR_PATH_NOT_FOUND
  }
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
  for (const wchar_t* area : {kLinks, kKept, kPending, kOwners, kDacls}) {
    ForgetValue(area, plain);
  }
}

bool HandleAllows(HANDLE file, DWORD rights) {
  PUBLIC_OBJECT_BASIC_INFORMATION information{};
  NtQueryObject(file, ObjectBasicInformation, &information, sizeof(information), nullptr);
  return (information.GrantedAccess & rights) == rights;
}

bool InSpool(const std::wstring& plain) {
  return plain.starts_with(Lower(kiosk::state::kLogRoot) + L"\\drop\\") && plain.ends_with(L".gelf");
}

bool Counts(const std::wstring& plain) {
  return InSpool(plain) || !(plain + L"\\").starts_with(Lower(kiosk::state::kLogRoot) + L"\\");
}

namespace {

template <typename Call>
BOOL ChangeAndForget(const char* function, unsigned kind, const wchar_t* given, Call call) {
  const std::wstring path = Resolve(given, false);
  return ChangeFile(function, kind, path, [&]() -> BOOL {
    const BOOL done = call(path.c_str());
    if (done) {
      Forget(path);
    }
    return done;
  });
}

// What is known of a path and of all below it goes along with a rename, a handle that somebody keeps as well.
void MoveRecords(const std::wstring& from, const std::wstring& to) {
  const std::wstring old = Plain(from);
  for (const wchar_t* area : {kLinks, kKept, kPending, kRunning, kOwners, kDacls}) {
    for (const std::wstring& path : ValueNames(area)) {
      if (path == old || path.starts_with(old + L"\\")) {
        WriteText(area, Plain(to) + path.substr(old.size()), ReadText(area, path).value_or(L""));
        ForgetValue(area, path);
      }
    }
  }
}

// ERROR_ACCESS_DENIED is what STATUS_DELETE_PENDING becomes.
bool Refused(const std::wstring& path) {
  const bool pending = IsPending(path);
  if (pending) {
    SetLastError(ERROR_ACCESS_DENIED);
  }
  return pending;
}

void MarkLink(HANDLE search, WIN32_FIND_DATAW* data) {
  if (IsLink(searches[search] + L"\\" + Lower(data->cFileName))) {
    data->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    data->dwReserved0 = IO_REPARSE_TAG_MOUNT_POINT;
  }
}

}  // namespace

void MakeJunction(const std::wstring& path, const std::wstring& target) {
  if (!CreateDirectoryW(path.c_str(), nullptr)) {
    Violation("the junction %s cannot be made (%lu)", Narrow(path).c_str(), GetLastError());
  }
  WriteText(kLinks, Plain(path), target);
}

void KeepHandle(const std::wstring& path, const std::wstring& target) { WriteText(kKept, Plain(path), target); }

void RunProgram(const std::wstring& path) { WriteText(kRunning, Plain(path), L""); }

void EndPrograms() { ForgetArea(kRunning); }

void MakeSymbolicLink(const std::wstring& path, const std::wstring& target) {
  CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  WriteText(kLinks, Plain(path), target);
}

void ShortenNextWrite(const std::wstring& pathEnd, DWORD bytes) {
  shortPath = Lower(pathEnd);
  shortSize = bytes;
  shorten = true;
}

}  // namespace sim

using namespace sim;

SIM(WINBOOL, CreateDirectoryW, LPCWSTR given, LPSECURITY_ATTRIBUTES security) {
  const std::wstring path = Resolve(given, false);
  return ChangeFile("CreateDirectoryW", kMakes, path, [&]() -> BOOL {
    if (Refused(path)) {
      return FALSE;
    }
    const BOOL done = ::CreateDirectoryW(path.c_str(), nullptr);
    const DWORD error = GetLastError();
    if (done && security != nullptr && security->lpSecurityDescriptor != nullptr) {
      SetFileSecurity(path, security->lpSecurityDescriptor);
    }
    SetLastError(error);
    return done;
  });
}

// "The directory is not removed until the last handle to the directory is closed."
SIM(WINBOOL, RemoveDirectoryW, LPCWSTR given) {
  const std::wstring path = Resolve(given, false);
  return ChangeFile("RemoveDirectoryW", kDeletes, path, [&]() -> BOOL {
    if (Refused(path) || !AwaitLease(path, FileUse::kRenameOrDelete)) {
      return FALSE;
    }
    if (ReadText(kKept, Plain(path)) && (IsLink(Plain(path)) || IsEmptyFolder(path))) {
      WriteText(kPending, Plain(path), L"");
      return TRUE;
    }
    const BOOL done = ::RemoveDirectoryW(path.c_str());
    if (done) {
      Forget(path);
    }
    return done;
  });
}

SIM(WINBOOL, DeleteFileW, LPCWSTR path) {
  return ChangeAndForget("DeleteFileW", kDeletes, path, [](const wchar_t* real) -> BOOL {
    return AwaitLease(real, FileUse::kRenameOrDelete) && ::DeleteFileW(real);
  });
}

// A folder with open files in it is not renamed ([MS-FSA] 2.1.5.15.11: STATUS_ACCESS_DENIED).
SIM(WINBOOL, MoveFileExW, LPCWSTR from, LPCWSTR to, DWORD flags) {
  const std::wstring target = Resolve(to, false);
  return ChangeAndForget("MoveFileExW", kMoves, from, [&](const wchar_t* real) -> BOOL {
    if (!AwaitLease(real, FileUse::kRenameOrDelete, true) || !AwaitLease(target, FileUse::kRenameOrDelete)) {
      return FALSE;
    }
    if (HasOpenFiles(real)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    }
    const BOOL done = ::MoveFileExW(real, to != nullptr ? target.c_str() : nullptr, flags);
    if (done && to != nullptr) {
      Forget(target);
      MoveRecords(real, target);
    }
    return done;
  });
}

SIM(WINBOOL, FlushFileBuffers, HANDLE file) {
  return ChangeOpenFile("FlushFileBuffers", kFlushes, file, [&] { return ::FlushFileBuffers(file); });
}

SIM(WINBOOL, MoveFileW, LPCWSTR from, LPCWSTR to) { return sim_MoveFileExW(from, to, MOVEFILE_COPY_ALLOWED); }

SIM(HANDLE, CreateFileW, LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
    DWORD flags, HANDLE model) {
  const std::wstring real = Resolve(path, (flags & FILE_FLAG_OPEN_REPARSE_POINT) == 0);
  HANDLE file = INVALID_HANDLE_VALUE;
  const auto open = [&]() -> BOOL {
    ForbidServers(real);
    if (Refused(real) || !AwaitLease(real, UseOfOpening(access, share))) {
      return FALSE;
    }
    file = ::CreateFileW(real.c_str(), access, share, security, disposition, flags, model);
    return file != INVALID_HANDLE_VALUE;
  };
  if (disposition == CREATE_NEW) {
    ChangeFile("CreateFileW", kMakes, real, open);
  } else if (!DiskIsBad() || !DiskRefuses(KindOfOpening(real, disposition == OPEN_EXISTING), Plain(real))) {
    open();
  }
  return file;
}

// In the spool a write is two changes, so that one can end in the middle. Success is no promise that all was taken: the
// page has the number written for that, and names a case of its own where it is smaller.
SIM(WINBOOL, WriteFile, HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
  if (overlapped == nullptr && DiskIsBad() && DiskRefuses(kHalfWrites, PathOf(file))) {
    return ::WriteFile(file, data, size / 2, written, nullptr);
  }
  if (shorten && overlapped == nullptr && PathOf(file).ends_with(shortPath) && shorten.exchange(false)) {
    return ::WriteFile(file, data, std::min(size, shortSize), written, nullptr);
  }
  if (!ChangePoint::Armed() || overlapped != nullptr || !InSpool(PathOf(file))) {
    return ChangeOpenFile("WriteFile", kWrites, file,
                          [&] { return ::WriteFile(file, data, size, written, overlapped); });
  }
  const DWORD half = size / 2;
  DWORD second = 0;
  const BOOL done =
      ChangeFile("WriteFile", kWrites, PathOf(file), [&] { return ::WriteFile(file, data, half, written, nullptr); }) &&
      ChangeFile("WriteFile", kWrites, PathOf(file), [&] {
        return ::WriteFile(file, static_cast<const char*>(data) + half, size - half, &second, nullptr);
      });
  *written += second;
  return done;
}

SIM(DWORD, GetFileAttributesW, LPCWSTR path) {
  const std::wstring real = Resolve(path, false);
  const bool refused = Refused(real) || (DiskIsBad() && DiskRefuses(kLooks, Plain(real)));
  const DWORD attributes = refused ? INVALID_FILE_ATTRIBUTES : ::GetFileAttributesW(real.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && IsLink(Plain(real)) ? attributes | FILE_ATTRIBUTE_REPARSE_POINT
                                                                      : attributes;
}

SIM(WINBOOL, GetFileInformationByHandle, HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
  if (DiskIsBad() && DiskRefuses(kLooks, PathOf(file))) {
    return FALSE;
  }
  const BOOL done = ::GetFileInformationByHandle(file, information);
  if (done && AreaExists(kLinks) && IsLink(PathOf(file))) {
    information->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  }
  return done;
}

SIM(HANDLE, FindFirstFileW, LPCWSTR pattern, LPWIN32_FIND_DATAW data) {
  const std::wstring real = Resolve(pattern, false);
  if (DiskIsBad() && DiskRefuses(kLooks, Plain(real))) {
    return INVALID_HANDLE_VALUE;
  }
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
