// Named pipes: FILE_FLAG_FIRST_PIPE_INSTANCE is enforced, the arguments of every creation are kept, reads are counted,
// and connecting can be made to fail.
#pragma once

#include "win32/winapi.h"

#include <string>
#include <vector>

namespace sim {

struct PipeCreation {
  std::wstring name;
  DWORD openMode, pipeMode, instances, outSize, inSize, timeout;
  std::wstring sddl;  // owner, group and DACL; empty without a descriptor
  DWORD error;        // 0: it was created
};

// In order, from any thread of this process.
std::vector<PipeCreation> PipeCreations();

// From now on ConnectNamedPipe fails with this error, at once; ERROR_SUCCESS: no longer. How often it was called so
// far.
void FailPipeConnects(DWORD error);
int PipeConnects();

// How many overlapped reads began so far.
int OverlappedReads();

}  // namespace sim
