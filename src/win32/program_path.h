// Where this program's own file lies.
#pragma once

#include <string>

namespace kiosk::win32 {

// The full path, however long; empty when Windows does not tell, and the last error says why.
std::wstring ProgramPath();

// The same for whom Windows is to start the program by its path, as a service or a scheduled task: empty, with
// ERROR_INSUFFICIENT_BUFFER, when it has 260 characters or more.
std::wstring StartablePath();

}  // namespace kiosk::win32
