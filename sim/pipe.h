// Named pipes: FILE_FLAG_FIRST_PIPE_INSTANCE is enforced, and the arguments of every creation are kept.
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

}  // namespace sim
