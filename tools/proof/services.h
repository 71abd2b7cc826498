// Services of this computer.
#pragma once

#include "win32/handle.h"

namespace proof {

// Invalid, with the last error, when it cannot be had.
kiosk::win32::ServiceHandle OpenExisting(const wchar_t* name, DWORD access);

// The process of a service that runs; otherwise 0.
DWORD ProcessOf(SC_HANDLE service);

// Stops a service, waiting for its process to end, and deletes it. True when it is not there any more.
bool EndService(const wchar_t* name);

}  // namespace proof
