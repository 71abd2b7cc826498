#include "sim/pipe.h"

#include "sim/files.h"
#include "sim/seam.h"

#include <mutex>

namespace sim {
namespace {

std::mutex mutex;
std::vector<PipeCreation> creations;

// An instance exists, free or busy, in any process.
bool PipeExists(const wchar_t* name) { return WaitNamedPipeW(name, 1) || GetLastError() != ERROR_FILE_NOT_FOUND; }

}  // namespace

std::vector<PipeCreation> PipeCreations() {
  const std::lock_guard guard(mutex);
  return creations;
}

}  // namespace sim

using namespace sim;

SIM(HANDLE, CreateNamedPipeW, LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD instances, DWORD outSize,
    DWORD inSize, DWORD timeout, LPSECURITY_ATTRIBUTES security) {
  const std::lock_guard guard(mutex);
  HANDLE pipe = INVALID_HANDLE_VALUE;
  if ((openMode & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0 && PipeExists(name)) {
    SetLastError(ERROR_ACCESS_DENIED);
  } else {
    pipe = ::CreateNamedPipeW(name, openMode, pipeMode, instances, outSize, inSize, timeout, security);
  }
  const DWORD error = pipe == INVALID_HANDLE_VALUE ? GetLastError() : 0;
  const PSECURITY_DESCRIPTOR descriptor = security != nullptr ? security->lpSecurityDescriptor : nullptr;
  creations.push_back({name, openMode, pipeMode, instances, outSize, inSize, timeout, SddlText(descriptor), error});
  SetLastError(error);
  return pipe;
}
