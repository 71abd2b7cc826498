// File security and links, which the development machine's file system lacks.
//
// Security: what the service sets (SetSecurityInfo, CreateDirectoryW) is kept per path in the
// areas "FileOwner" and "FileDacl" and not applied. Links: a path declared as one shows as a reparse point, is followed
// where Windows follows it, also in the middle of a path, and goes away alone (area "Links").
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

void MakeSymbolicLink(const std::wstring& path, const std::wstring& target);

// The next write into a file whose path ends so takes that many bytes of what it is given and reports success.
void ShortenNextWrite(const std::wstring& pathEnd, DWORD bytes);

// Owner, group and DACL of a descriptor as SDDL; empty for null.
std::wstring SddlText(PSECURITY_DESCRIPTOR descriptor);

}  // namespace sim
