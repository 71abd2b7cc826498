// Files by handle: opened below an open folder, and deleted.
#include "sim/files_internal.h"
#include "sim/leases.h"
#include "sim/seam.h"

#include <winternl.h>

namespace sim {
namespace {

constexpr NTSTATUS kReparsePointEncountered = static_cast<NTSTATUS>(0xC000050B);
constexpr NTSTATUS kDeletePending = static_cast<NTSTATUS>(0xC0000056);
constexpr NTSTATUS kInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS kSharingViolation = static_cast<NTSTATUS>(0xC0000043);
constexpr NTSTATUS kOplockBreakInProgress = 0x108;
constexpr DWORD kFromWin32 = 0xC0070000;  // FACILITY_NTWIN32: RtlNtStatusToDosError gives the rest back
constexpr DWORD kDispositionEx = 21;      // FileDispositionInfoEx, which the headers number only for later versions

// "Open.File.FileAttributes.FILE_ATTRIBUTE_READONLY" and an image section: STATUS_CANNOT_DELETE ([MS-FSA] 2.1.5.15.3,
// and FILE_DISPOSITION_INFORMATION_EX).
bool CannotBeDeleted(HANDLE file, const std::wstring& path) {
  BY_HANDLE_FILE_INFORMATION info{};
  return !HandleAllows(file, DELETE) || ReadText(kRunning, path).has_value() ||
         (::GetFileInformationByHandle(file, &info) != 0 && (info.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0);
}

// A name goes when the last handle is closed; with FILE_DISPOSITION_POSIX_SEMANTICS when the one that deletes is.
BOOL Delete(HANDLE file, bool posix) {
  const std::wstring path = PathOf(file);
  if (CannotBeDeleted(file, path)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (!AwaitLease(path, FileUse::kDelete)) {
    return FALSE;
  }
  if (!posix && ReadText(kKept, path)) {
    WriteText(kPending, path, L"");
    return TRUE;
  }
  FILE_DISPOSITION_INFO disposition{TRUE};
  const BOOL done = ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition));
  if (done) {
    Forget(path);
  }
  return done;
}

}  // namespace
}  // namespace sim

using namespace sim;

// A relative name is looked up in the open folder itself, wherever its path leads by now. Whether a folder that became
// a link since is followed then is not documented, so it is; not with OBJ_DONT_REPARSE, which fails at any link.
SIM(NTSTATUS, NtCreateFile, PHANDLE file, ACCESS_MASK access, POBJECT_ATTRIBUTES object, PIO_STATUS_BLOCK status,
    PLARGE_INTEGER size, ULONG attributes, ULONG share, ULONG disposition, ULONG options, PVOID extended,
    ULONG extendedSize) {
  const bool stops = (object->Attributes & OBJ_DONT_REPARSE) != 0;
  const std::wstring folder = PathOf(object->RootDirectory);
  const std::wstring name(object->ObjectName->Buffer, object->ObjectName->Length / sizeof(wchar_t));
  UseKeptHandles();
  if (folder.empty() || name.empty() || name.find(L'\\') != std::wstring::npos ||
      (options & FILE_SYNCHRONOUS_IO_NONALERT) == 0 || (access & SYNCHRONIZE) == 0) {
    Violation("NtCreateFile opens %s in a way that is not simulated", Narrow(name).c_str());
    return kInvalidParameter;
  }
  std::wstring path = folder + L"\\" + name;
  if (IsPending(folder) || IsPending(path)) {
    return kDeletePending;
  }
  if (IsLink(folder) || (IsLink(Plain(path)) && (options & FILE_OPEN_REPARSE_POINT) == 0)) {
    if (stops) {
      return kReparsePointEncountered;
    }
    path = Resolve(path.c_str(), (options & FILE_OPEN_REPARSE_POINT) == 0);
  }
  std::wstring whole = L"\\??\\" + path;
  UNICODE_STRING text{static_cast<USHORT>(whole.size() * sizeof(wchar_t)),
                      static_cast<USHORT>(whole.size() * sizeof(wchar_t)), whole.data()};
  OBJECT_ATTRIBUTES real = *object;
  real.SecurityDescriptor = nullptr;
  real.Attributes = OBJ_CASE_INSENSITIVE;
  if (Plain(path) != Plain(folder + L"\\" + name)) {
    real.RootDirectory = nullptr;
    real.ObjectName = &text;
  }
  if (DiskIsBad() && DiskRefuses(KindOfOpening(path, disposition == FILE_OPEN), Plain(path))) {
    return static_cast<NTSTATUS>(kFromWin32 | GetLastError());
  }
  const FileUse use = UseOfOpening(access, share);
  const bool leased = disposition == FILE_OPEN && IsLeased(path, use);
  if (leased && (options & FILE_COMPLETE_IF_OPLOCKED) == 0) {
    Violation("NtCreateFile may wait for whoever holds %s", Narrow(path).c_str());
  }
  if (leased && use == FileUse::kOpenUnshared) {
    return kSharingViolation;
  }
  const auto open = [&]() -> NTSTATUS {
    const NTSTATUS result = ::NtCreateFile(file, access, &real, status, size, attributes, share, disposition, options,
                                           extended, extendedSize);
    if (result >= 0 && disposition == FILE_CREATE && object->SecurityDescriptor != nullptr) {
      SetFileSecurity(path, object->SecurityDescriptor);
    }
    return result >= 0 && leased ? kOplockBreakInProgress : result;
  };
  if (disposition == FILE_OPEN || !Counts(Plain(path))) {
    return open();
  }
  NTSTATUS result = 0;
  const BOOL made = Change<BOOL>("NtCreateFile", Plain(path), [&]() -> BOOL { return (result = open()) >= 0; });
  return made || result < 0 ? result : static_cast<NTSTATUS>(kFromWin32 | GetLastError());
}

SIM(WINBOOL, SetFileInformationByHandle, HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID data, DWORD size) {
  const bool extended = kind == static_cast<FILE_INFO_BY_HANDLE_CLASS>(kDispositionEx);
  return ChangeOpenFile("SetFileInformationByHandle", kDeletes, file, [&]() -> BOOL {
    if (extended) {
      return Delete(file, (*static_cast<DWORD*>(data) & FILE_DISPOSITION_FLAG_POSIX_SEMANTICS) != 0);
    }
    return kind == FileDispositionInfo && static_cast<FILE_DISPOSITION_INFO*>(data)->DeleteFile
               ? Delete(file, false)
               : ::SetFileInformationByHandle(file, kind, data, size);
  });
}
