// What is in a folder, reached through the open folder and one name at a time. A path is looked up anew with each call,
// and whoever may write a folder on the way can lead it elsewhere in between; an open folder stays what it is.
#pragma once

#include "win32/handle.h"

#include <string>
#include <string_view>
#include <vector>

namespace kiosk::win32 {

// All functions leave the reason of a failure as the last error.
//
// No link is followed: one that bears the name is opened itself, and in a folder that became a link since it was opened
// nothing is found (ERROR_REPARSE_POINT_ENCOUNTERED). Waits for nobody: a file of which somebody else would first have
// to give up a lock (an oplock) counts as open for him alone (ERROR_SHARING_VIOLATION). What shuts this account out by
// its own access list is opened by the right of the privileges.
FileHandle OpenIn(HANDLE folder, std::wstring_view name, DWORD access, DWORD share) noexcept;

// Makes a folder with that security; fails with ERROR_ALREADY_EXISTS when the name is taken.
FileHandle CreateFolderIn(HANDLE folder, std::wstring_view name, DWORD access, DWORD share,
                          PSECURITY_DESCRIPTOR security) noexcept;

// INVALID_FILE_ATTRIBUTES when they cannot be had.
DWORD AttributesOf(HANDLE file) noexcept;

// The names of what is in the folder (open with FILE_LIST_DIRECTORY), "." and ".." left out.
std::vector<std::wstring> NamesIn(HANDLE folder);

// Deletes an open file, link or empty folder (open with DELETE | FILE_WRITE_ATTRIBUTES), read-only or not. Where the
// file system can, the name is free as soon as the handle is closed, even if somebody else still has the file open.
// Waits half a second at the most for somebody who holds a lock on it (ERROR_OPERATION_ABORTED).
bool Delete(HANDLE file) noexcept;

}  // namespace kiosk::win32
