// Sessions of the simulated machine: area "Sessions\<id>" with the texts "User" and "Domain". Without that area the
// real calls answer. The session of a pipe's client is the real one unless the machine holds the number
// "PipeClientSession.<process id>" or "PipeClientSession".
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

// Nobody is signed in to a session whose user is empty.
void SetSession(DWORD id, const std::wstring& user, const std::wstring& domain);
void EndSession(DWORD id);
// For every client, or for one process.
void SetPipeClientSession(DWORD session, DWORD processId = 0);
// Buffers that WTSFreeMemory has not seen yet.
int OpenSessionBuffers();

}  // namespace sim
