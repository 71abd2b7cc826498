// Program files: who signed them, which process runs which, and on what drive they lie. What a test declares holds for
// its own process.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

// Windows trusts an embedded signature of that file, whose certificate has this Subject ("CN=Norvane"). Files of which
// nothing is said are judged by what is in them.
void SignFile(const std::wstring& path, const std::wstring& subject);

// What Windows names as the program file of every process; empty: the real one.
void SetProcessImage(const std::wstring& path);

// The drive's type ("R:\\", DRIVE_REMOTE). It need not be there.
void SetDriveType(const std::wstring& root, UINT type);

// For the simulated CreateFileW: opening a file of a server is a violation, since Windows signs in there, as the
// computer, for a service that runs as LocalSystem.
void ForbidServers(const std::wstring& path);

}  // namespace sim
