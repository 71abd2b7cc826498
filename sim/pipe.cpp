#include "sim/pipe.h"

#include "sim/files.h"
#include "sim/files_internal.h"
#include "sim/seam.h"

#include <atomic>
#include <mutex>

namespace sim {
namespace {

std::mutex mutex;
std::vector<PipeCreation> creations;
std::atomic<DWORD> connectError{ERROR_SUCCESS};
std::atomic<int> connects{0};
std::atomic<int> reads{0};

// An instance exists, free or busy, in any process.
bool PipeExists(const wchar_t* name) { return WaitNamedPipeW(name, 1) || GetLastError() != ERROR_FILE_NOT_FOUND; }

}  // namespace

std::vector<PipeCreation> PipeCreations() {
  const std::lock_guard guard(mutex);
  return creations;
}

void FailPipeConnects(DWORD error) { connectError = error; }

int PipeConnects() { return connects; }

int OverlappedReads() { return reads; }

}  // namespace sim

using namespace sim;

SIM(WINBOOL, ConnectNamedPipe, HANDLE pipe, LPOVERLAPPED overlapped) {
  ++connects;
  if (connectError != ERROR_SUCCESS) {
    SetLastError(connectError);
    return FALSE;
  }
  return ::ConnectNamedPipe(pipe, overlapped);
}

SIM(WINBOOL, ReadFile, HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
  reads += overlapped != nullptr ? 1 : 0;
  return !(overlapped == nullptr && DiskIsBad() && DiskRefuses(kReads, PathOf(file))) &&
         ::ReadFile(file, buffer, size, read, overlapped);
}

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
