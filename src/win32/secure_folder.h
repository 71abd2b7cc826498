// Folders below C:\ProgramData that only privileged accounts may write. Any user may create folders there before the
// service first runs, so a folder that exists is never trusted as it stands.
//
// What cannot be had back: whoever made a folder may have opened it with the right to write its attributes or its
// access list, and keep that handle. No sharing mode shows such a handle, and no new owner or list ends it; only the
// end of his process does, a restart of the computer at the latest. Until then he may give the folder another list, and
// make it a link whenever it is empty. So a stranger's folder is used only where it stays in use itself and never is
// empty; any other is made anew, and what is in it is reached by handle (win32/open_folder.h).
//
// Paths are given as usual ("C:\..."), and handed to Windows literally.
#pragma once

#include "win32/clock.h"
#include "win32/handle.h"

#include <string>
#include <vector>

namespace kiosk::win32 {

// Owner Administrators; protected; full control for SYSTEM and Administrators alone, inherited by all new content.
inline constexpr wchar_t kPrivateFolderSddl[] = L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
// The same, and Users may read and execute.
inline constexpr wchar_t kReadableFolderSddl[] = L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

enum class FolderStep { kDone, kRemove, kDescriptor, kDisplace, kCreate, kSecure };

struct FolderResult {
  FolderStep failedAt = FolderStep::kDone;
  DWORD error = ERROR_SUCCESS;  // of the failed step
  bool replaced = false;        // something that was not a plain folder stood there and was removed
  bool setAside = false;        // a stranger's folder was
  // Nobody else has it open for renaming or deleting it, or can open it so while this is open. Invalid when a step
  // failed.
  FileHandle folder;

  explicit operator bool() const noexcept { return failedAt == FolderStep::kDone; }
};

// What becomes of a folder that belongs to neither SYSTEM nor Administrators nor this process's own account. Its
// content may be a trap: whoever made it still owns what is in it.
enum class ForeignFolder {
  kTakeOver,          // keeps its content under the new owner and DACL; for folders with held folders in them
  kSetAside,          // is renamed, and a new one takes its place
  kRemove,            // is removed with all that is in it, and a new one takes its place
  kRemoveOrSetAside,  // the same, and what cannot be removed is renamed
};

// What a folder is renamed to: its name, this, and a number.
inline constexpr wchar_t kSetAsideMark[] = L".untrusted-";

// Makes `path` a plain folder with exactly the owner and the protected DACL of `sddl`; one that has them already is not
// written to. A file, or a link of any kind, that stands in its place is removed (the link, not its target). A
// stranger's folder that can be neither removed nor renamed fails at kDisplace. Parents are not looked at: secure them
// first, and keep their handles for as long as the path is to be trusted; then none of them can become a link. Nothing
// else is written to: what is in the folder keeps the access list that it has.
FolderResult SecureFolder(const wchar_t* path, const wchar_t* sddl, ForeignFolder foreign) noexcept;

// True when the open file or folder belongs to SYSTEM, Administrators, or whoever runs this program. An owner that
// cannot be read counts as foreign.
bool HasTrustedOwner(HANDLE file) noexcept;

// Opens what stands at `path` as OpenIn of win32/open_folder.h does: no link is followed, and nobody is waited for.
FileHandle OpenAt(const std::wstring& path, DWORD access, DWORD share) noexcept;

// The names of what is in the folder, "." and ".." left out.
std::vector<std::wstring> NamesIn(const std::wstring& folder);

// Removes what stands at `path`: a file, a link (never its target), or a folder with all that is in it, read-only or
// not. Safe against whoever made the folder: he can put nothing more into it, and whatever he makes of it or of folders
// in it, nothing elsewhere is removed. The parent is secured and held by the caller. False with the last error when
// something is left: more than 16 levels are not followed (ERROR_DIR_NOT_EMPTY), somebody who holds a lock on a file is
// waited for as Delete of win32/open_folder.h does, and after the deadline nothing more is begun (ERROR_TIMEOUT).
inline constexpr std::uint64_t kRemovalTime = 5'000;
bool RemoveTree(const std::wstring& path, const Deadline& deadline = Deadline(kRemovalTime));

}  // namespace kiosk::win32
