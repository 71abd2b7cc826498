// Files and folders, their owners and links.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <aclapi.h>
#include <sddl.h>
#include <winternl.h>

#include <optional>

namespace contract {
namespace {

using kiosk::win32::FileHandle;
using kiosk::win32::FindHandle;
using kiosk::win32::LocalMemory;

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

FileHandle Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING,
                DWORD flags = FILE_FLAG_BACKUP_SEMANTICS) {
  return FileHandle(CreateFileW(path.c_str(), access, share, nullptr, disposition, flags, nullptr));
}

void MissingThings(Asked& asked) {
  const Folder folder;
  asked.Fails("a file", static_cast<bool>(Open(folder.Path(L"none"), GENERIC_READ, kShareAll)), {ERROR_FILE_NOT_FOUND});
  asked.Fails("a folder on the way", static_cast<bool>(Open(folder.Path(L"none\\none"), GENERIC_READ, kShareAll)),
              {ERROR_PATH_NOT_FOUND});
  asked.Fails("attributes", GetFileAttributesW(folder.Path(L"none").c_str()) != INVALID_FILE_ATTRIBUTES,
              {ERROR_FILE_NOT_FOUND});
  asked.Fails("deleting", DeleteFileW(folder.Path(L"none").c_str()) != 0, {ERROR_FILE_NOT_FOUND});
  asked.Fails("moving", MoveFileExW(folder.Path(L"none").c_str(), folder.Path(L"x").c_str(), 0) != 0,
              {ERROR_FILE_NOT_FOUND});
  asked.Fails("moving plainly", MoveFileW(folder.Path(L"none").c_str(), folder.Path(L"x").c_str()) != 0,
              {ERROR_FILE_NOT_FOUND});
}

void NewMeansNew(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  asked.Fails("CREATE_NEW", static_cast<bool>(Open(path, GENERIC_WRITE, 0, CREATE_NEW)), {ERROR_FILE_EXISTS});
  asked.Fails("CreateDirectoryW", CreateDirectoryW(path.c_str(), nullptr) != 0, {ERROR_ALREADY_EXISTS});
}

void NobodySharesWithZero(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  const FileHandle alone = Open(path, GENERIC_READ, 0);
  asked.True("the first", static_cast<bool>(alone));
  asked.Fails("a second", static_cast<bool>(Open(path, GENERIC_READ, kShareAll)), {ERROR_SHARING_VIOLATION});
  asked.Fails("deleting", DeleteFileW(path.c_str()) != 0, {ERROR_SHARING_VIOLATION});
  asked.True("attributes are told all the same", GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES);
}

void ReadOnlyStays(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  asked.True("SetFileAttributesW", SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY) != 0);
  asked.Fails("deleting", DeleteFileW(path.c_str()) != 0, {ERROR_ACCESS_DENIED});
  asked.True("SetFileAttributesW", SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL) != 0);
  asked.True("deleting it then", DeleteFileW(path.c_str()) != 0);
}

void FoldersWithContentStay(Asked& asked) {
  const Folder folder;
  const std::wstring inner = folder.Path(L"inner");
  CreateDirectoryW(inner.c_str(), nullptr);
  const AtEnd empty([&] { DeleteFileW((inner + L"\\file").c_str()); });
  static_cast<void>(folder.File(L"inner\\file"));
  asked.Fails("RemoveDirectoryW", RemoveDirectoryW(inner.c_str()) != 0, {ERROR_DIR_NOT_EMPTY});
  asked.Fails("DeleteFileW on a folder", DeleteFileW(inner.c_str()) != 0, {ERROR_ACCESS_DENIED});
}

void ReplacedWhole(Asked& asked) {
  const Folder folder;
  const std::wstring old = folder.File(L"old", "old");
  const std::wstring fresh = folder.File(L"new", "new content");
  asked.Fails("without the flag", MoveFileExW(fresh.c_str(), old.c_str(), 0) != 0, {ERROR_ALREADY_EXISTS});
  asked.True("with it",
             MoveFileExW(fresh.c_str(), old.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0);
  const FileHandle file = Open(old, GENERIC_READ, kShareAll);
  char text[32]{};
  DWORD read = 0;
  asked.True("ReadFile", ReadFile(file.Get(), text, sizeof(text), &read, nullptr) != 0);
  asked.Same("bytes of the new content", read, 11);
}

void AppendsAtTheEnd(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file", "12345");
  const FileHandle file = Open(path, FILE_APPEND_DATA, kShareAll, OPEN_ALWAYS);
  DWORD written = 0;
  asked.True("WriteFile", WriteFile(file.Get(), "678", 3, &written, nullptr) != 0);
  asked.Same("bytes written", written, 3);
  BY_HANDLE_FILE_INFORMATION info{};
  const FileHandle look = Open(path, FILE_READ_ATTRIBUTES, kShareAll);
  asked.True("GetFileInformationByHandle", GetFileInformationByHandle(look.Get(), &info) != 0);
  asked.Same("its size", info.nFileSizeLow, 8);
  asked.Same("its names", info.nNumberOfLinks, 1);
  asked.Fails("FlushFileBuffers without a right to write", FlushFileBuffers(look.Get()) != 0, {ERROR_ACCESS_DENIED});
}

void ListsEndWithAnError(Asked& asked) {
  const Folder folder;
  static_cast<void>(folder.File(L"one"));
  WIN32_FIND_DATAW data;
  const FindHandle find(FindFirstFileW(folder.Path(L"*").c_str(), &data));
  int files = 0;
  for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.Get(), &data) != 0) {
    files += (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ? 1 : 0;
  }
  asked.Same("the end of a list", GetLastError(), ERROR_NO_MORE_FILES);
  asked.Same("files", files, 1);
  asked.Fails("a pattern without a match", FindFirstFileW(folder.Path(L"none*").c_str(), &data) != INVALID_HANDLE_VALUE,
              {ERROR_FILE_NOT_FOUND});
}

std::wstring Security(HANDLE file) {
  LocalMemory descriptor;
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, nullptr,
                      nullptr, nullptr, &raw) != ERROR_SUCCESS) {
    return L"unknown";
  }
  descriptor.Reset(raw);
  wchar_t* text = nullptr;
  ConvertSecurityDescriptorToStringSecurityDescriptorW(
      raw, SDDL_REVISION_1, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &text, nullptr);
  const LocalMemory owned(text);
  return text != nullptr ? text : L"unknown";
}

// Also the open question of setting a folder aside: a move within a volume keeps owner and list.
void MovesKeepOwnerAndList(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine's files have no owner and no list of their own");
  const Folder folder;
  const std::wstring from = folder.Path(L"from");
  LocalMemory descriptor;
  PSECURITY_DESCRIPTOR raw = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FR;;;AU)", SDDL_REVISION_1,
                                                       &raw, nullptr);
  descriptor.Reset(raw);
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), raw, FALSE};
  Asked::Needs(CreateDirectoryW(from.c_str(), &attributes) != 0, "a folder that belongs to the administrators");
  const std::wstring before = Security(Open(from, READ_CONTROL, kShareAll).Get());
  asked.True("the list is the one that was given", before.find(L"FR;;;AU") != std::wstring::npos);
  asked.True("MoveFileExW", MoveFileExW(from.c_str(), folder.Path(L"to").c_str(), 0) != 0);
  asked.Same("owner and list", Security(Open(folder.Path(L"to"), READ_CONTROL, kShareAll).Get()), before);
}

void OwnerAndListCanBeReplaced(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine's files have no owner and no list of their own");
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  const FileHandle file = Open(path, READ_CONTROL | WRITE_DAC | WRITE_OWNER, kShareAll);
  PSECURITY_DESCRIPTOR raw = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)", SDDL_REVISION_1, &raw,
                                                       nullptr);
  const LocalMemory descriptor(raw);
  asked.True("SetKernelObjectSecurity", SetKernelObjectSecurity(file.Get(),
                                                                OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                                                                    PROTECTED_DACL_SECURITY_INFORMATION,
                                                                raw) != 0);
  const std::wstring set = Security(file.Get());
  asked.True("it reads so", set.starts_with(L"O:BAD:P") && set.ends_with(L"(A;;FA;;;SY)(A;;FA;;;BA)"));
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  GetSecurityDescriptorDacl(raw, &present, &list, &defaulted);
  asked.Same(
      "SetSecurityInfo",
      SetSecurityInfo(file.Get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                      nullptr, nullptr, list, nullptr),
      ERROR_SUCCESS);
}

void OpenFilesCanBeDeleted(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  FileHandle file = Open(path, DELETE, kShareAll);
  FILE_DISPOSITION_INFO gone{TRUE};
  asked.True("SetFileInformationByHandle",
             SetFileInformationByHandle(file.Get(), FileDispositionInfo, &gone, sizeof(gone)) != 0);
  file.Reset();
  asked.Fails("the file afterwards", GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES,
              {ERROR_FILE_NOT_FOUND});
}

void JunctionsShow(Asked& asked) {
  const Folder folder;
  CreateDirectoryW(folder.Path(L"target").c_str(), nullptr);
  MakeJunction(folder.Path(L"link"), folder.Path(L"target"));
  const AtEnd remove([&] { RemoveDirectoryW(folder.Path(L"link").c_str()); });
  const DWORD attributes = GetFileAttributesW(folder.Path(L"link").c_str());
  asked.True("a reparse point", (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0);
  static_cast<void>(folder.File(L"link\\through"));
  asked.True("what is made through it is in its target", DeleteFileW(folder.Path(L"target\\through").c_str()) != 0);
  BY_HANDLE_FILE_INFORMATION info{};
  const FileHandle link = Open(folder.Path(L"link"), FILE_READ_ATTRIBUTES, kShareAll, OPEN_EXISTING,
                               FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT);
  asked.True("opened itself", GetFileInformationByHandle(link.Get(), &info) != 0 &&
                                  (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0);
}

// From an open folder by a name in it ("NtCreateFile function", RootDirectory), not through a link.
void RelativeOpens(Asked& asked) {
  const Folder folder;
  static_cast<void>(folder.File(L"file"));
  const FileHandle root = Open(folder.Path(L"."), FILE_TRAVERSE | FILE_LIST_DIRECTORY, kShareAll);
  wchar_t name[] = L"file";
  UNICODE_STRING text{8, 8, name};
  OBJECT_ATTRIBUTES attributes{};
  InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, root.Get(), nullptr);
  IO_STATUS_BLOCK status{};
  FileHandle file;
  HANDLE raw = nullptr;
  asked.Same("a file that is there",

             NtCreateFile(&raw, FILE_READ_ATTRIBUTES | SYNCHRONIZE, &attributes, &status, nullptr, 0, kShareAll,
                          FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, nullptr, 0),
             0);
  file.Reset(raw != nullptr ? raw : INVALID_HANDLE_VALUE);
  name[0] = L'n';
  asked.Same("one that is not",

             NtCreateFile(&raw, FILE_READ_ATTRIBUTES | SYNCHRONIZE, &attributes, &status, nullptr, 0, kShareAll,
                          FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, nullptr, 0),
             0xC0000034);
}

struct Opening {
  std::wstring path;
  bool opened = false;
};

DWORD WINAPI OpenIt(void* data) {
  auto* const opening = static_cast<Opening*>(data);
  opening->opened = static_cast<bool>(Open(opening->path, GENERIC_READ, kShareAll));
  return 0;
}

// "Breaking Opportunistic Locks": whoever opens the file waits until its holder is done.
void LeasesHoldAnOpen(Asked& asked) {
  const Folder folder;
  Opening opening{folder.File(L"file")};
  std::optional<FileLease> lease(opening.path);
  const kiosk::win32::KernelHandle thread(CreateThread(nullptr, 0, OpenIt, &opening, 0, nullptr));
  asked.Same("an open meanwhile", WaitForSingleObject(thread.Get(), 500), WAIT_TIMEOUT);
  lease.reset();
  asked.Same("the open then", WaitForSingleObject(thread.Get(), 10'000), WAIT_OBJECT_0);
  asked.True("it has the file", opening.opened);
}

bool DeleteOpenFile(const std::wstring& path) {
  const FileHandle file = Open(path, DELETE, kShareAll);
  FILE_DISPOSITION_INFO gone{TRUE};
  return file && SetFileInformationByHandle(file.Get(), FileDispositionInfo, &gone, sizeof(gone)) != 0;
}

struct Change {
  const char* what;
  bool (*make)(const std::wstring& path);
};
constexpr Change kChanges[] = {
    {"DeleteFileW", [](const std::wstring& path) { return DeleteFileW(path.c_str()) != 0; }},
    {"a deletion by handle", DeleteOpenFile},
    {"MoveFileExW",
     [](const std::wstring& path) { return MoveFileExW(path.c_str(), (path + L".moved").c_str(), 0) != 0; }},
};

struct Changing {
  const Change& change;
  const std::wstring& path;
  DWORD error;
};

DWORD WINAPI ChangeIt(void* data) {
  auto* const changing = static_cast<Changing*>(data);
  changing->error = changing->change.make(changing->path) ? ERROR_SUCCESS : GetLastError();
  return 0;
}

// "Checking the Oplock State of an IRP_MJ_SET_INFORMATION Operation", and "CancelSynchronousIo function".
void LeasesHoldChanges(Asked& asked) {
  const Folder folder;
  const std::wstring path = folder.File(L"file");
  for (const Change& each : kChanges) {
    std::optional<FileLease> lease(std::in_place, path, LeaseKind::kReadHandle);
    asked.True("an open meanwhile", static_cast<bool>(Open(path, GENERIC_READ, kShareAll)));
    Changing changing{each, path, ERROR_SUCCESS};
    const kiosk::win32::KernelHandle thread(CreateThread(nullptr, 0, ChangeIt, &changing, 0, nullptr));
    asked.Same(each.what, WaitForSingleObject(thread.Get(), 500), WAIT_TIMEOUT);
    bool cancelled = false;
    for (int tries = 0; tries < 200 && WaitForSingleObject(thread.Get(), 50) == WAIT_TIMEOUT; ++tries) {
      cancelled = CancelSynchronousIo(thread.Get()) != 0 || cancelled;  // it may not have come to its wait yet
    }
    asked.True("it is cancelled", cancelled);
    if (WaitForSingleObject(thread.Get(), 0) != WAIT_OBJECT_0) {
      lease.reset();
      WaitForSingleObject(thread.Get(), INFINITE);
    }
    asked.Same("its error", changing.error, ERROR_OPERATION_ABORTED);
  }
}

void DrivesAreTold(Asked& asked) {
  asked.Same("C:", GetDriveTypeW(L"C:\\"), DRIVE_FIXED);
  asked.Same("a drive that is not there", GetDriveTypeW(L"Q:\\"), DRIVE_NO_ROOT_DIR);
  ULARGE_INTEGER available{};
  ULARGE_INTEGER total{};
  asked.True("GetDiskFreeSpaceExW", GetDiskFreeSpaceExW(L"C:\\", &available, &total, nullptr) != 0);
  asked.True("no more is free than there is", available.QuadPart <= total.QuadPart && total.QuadPart > 0);
}

constexpr Case kCases[] = {
    {"missing", "a missing file and a missing folder have errors of their own", MissingThings},
    {"new", "what is to be new must not be there", NewMeansNew},
    {"share nothing", "a file that is shared with nobody is neither opened nor deleted", NobodySharesWithZero},
    {"read-only", "a read-only file is not deleted", ReadOnlyStays},
    {"content", "a folder with content is not removed", FoldersWithContentStay},
    {"replace", "a move replaces a file as a whole, when asked to", ReplacedWhole},
    {"append", "what is appended comes to the end", AppendsAtTheEnd},
    {"list", "a list ends with an error of its own", ListsEndWithAnError},
    {"move keeps security", "a move keeps owner and list", MovesKeepOwnerAndList},
    {"set security", "owner and list can be replaced and read back", OwnerAndListCanBeReplaced},
    {"delete by handle", "a file that is deleted by its handle is gone with it", OpenFilesCanBeDeleted},
    {"junction", "a junction shows as one, leads to its target, and can be opened itself", JunctionsShow},
    {"relative", "a file is opened by its name below an open folder", RelativeOpens},
    {"lease", "an exclusive opportunistic lock holds whoever opens the file", LeasesHoldAnOpen},
    {"lease for reading", "one that is for reading holds renames and deletions, which can be cancelled",
     LeasesHoldChanges},
    {"drives", "drives have types and room", DrivesAreTold},
};

}  // namespace

extern const Group kFiles;
const Group kFiles{"files", kCases};

}  // namespace contract
