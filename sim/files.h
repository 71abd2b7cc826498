// File security and links, which the development machine's file system lacks.
//
// Security: what the service sets (SetKernelObjectSecurity, CreateDirectoryW) is kept per path in the areas "FileOwner"
// and "FileDacl" and not applied. Links: a path declared as one shows as a reparse point, is followed where Windows
// follows it, also in the middle of a path, and goes away alone (area "Links").
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

// Owner and DACL of the path as SDDL ("O:BAD:PAI(...)"), empty where none was set.
std::wstring FileSecurity(const std::wstring& path);
// What somebody else had set there before.
void SetFileSecurity(const std::wstring& path, const std::wstring& owner, const std::wstring& dacl);

// Creates a junction at `path`, which must not exist. Its parents must.
void MakeJunction(const std::wstring& path, const std::wstring& target);

// Somebody keeps a handle to the folder that allows FILE_WRITE_ATTRIBUTES, which no sharing mode and no later access
// list takes away. With it he makes the folder a junction to `target` as soon as it is empty (FSCTL_SET_REPARSE_POINT,
// [MS-FSA] 2.1.5.10.37), and its name stays taken when it is deleted, unless that was done with
// FILE_DISPOSITION_POSIX_SEMANTICS.
void KeepHandle(const std::wstring& path, const std::wstring& target);

// The file is the image of a running program: it cannot be deleted, and its folder can be renamed. Until EndPrograms.
void RunProgram(const std::wstring& path);
void EndPrograms();

void MakeSymbolicLink(const std::wstring& path, const std::wstring& target);

// The next write into a file whose path ends so takes that many bytes of what it is given and reports success.
void ShortenNextWrite(const std::wstring& pathEnd, DWORD bytes);

// Owner, group and DACL of a descriptor as SDDL; empty for null.
std::wstring SddlText(PSECURITY_DESCRIPTOR descriptor);

}  // namespace sim
