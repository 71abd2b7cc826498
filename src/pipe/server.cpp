#include "pipe/server.h"

#include "log/log.h"
#include "pipe/connection.h"
#include "pipe/overlapped.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <utility>

namespace kiosk::pipe {
namespace {

using log::kKiosk;
using win32::FileHandle;

// Protected. SYSTEM has all rights. Interactive users (at the console or remote) may read and write, but not create
// instances of the pipe. Nobody else, services and network logons included, may open it.
constexpr wchar_t kPipeSddl[] = L"D:P(A;;GA;;;SY)(A;;0x12019b;;;IU)";
constexpr DWORD kBufferSize = 8192;
constexpr DWORD kCreateRetry = 2000;

// Raised by the service thread, lowered by each connection's thread as its last act.
std::atomic<long> liveConnections{0};

FileHandle CreateInstance(const win32::SecurityDescriptor& descriptor, bool first) noexcept {
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  const DWORD firstOnly = first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
  return FileHandle(CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | firstOnly,
                                     PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                                     PIPE_UNLIMITED_INSTANCES, kBufferSize, kBufferSize, 0, &attributes));
}

// Waits without time limit for a client. False when there is none: the connecting failed or the service is to stop.
bool Connect(HANDLE instance, OverlappedIo& io) noexcept {
  const BOOL started = ConnectNamedPipe(instance, io.Begin());
  if (started == 0 && GetLastError() == ERROR_PIPE_CONNECTED) {
    return !win32::StopRequested();
  }
  return io.Finish(instance, started, INFINITE).end == IoEnd::kDone;
}

FileHandle Duplicate(HANDLE instance) noexcept {
  FileHandle copy;
  DuplicateHandle(GetCurrentProcess(), instance, GetCurrentProcess(), copy.Put(), 0, FALSE, DUPLICATE_SAME_ACCESS);
  return copy;
}

void StartConnection(FileHandle instance, std::uint64_t connectedAt) noexcept {
  liveConnections.fetch_add(1);
  try {
    const win32::KernelHandle thread = win32::StartThread(
        [pipe = std::move(instance), connectedAt]() mutable noexcept {
          ServeConnection(std::move(pipe), connectedAt);
          liveConnections.fetch_sub(1);
        },
        win32::kSmallStack);
    if (thread) {
      return;
    }
    log::Log(log::kError, kKiosk, "pipe: cannot start a connection thread (%lu)", GetLastError());
  } catch (const std::exception& problem) {
    log::Log(log::kError, kKiosk, "pipe: cannot start a connection thread (%s)", problem.what());
  }
  // A service that can start no thread is of no use to anybody, and the service manager starts a fresh one.
  log::EndProcess(1);
}

}  // namespace

void RunPipeServer() {
  const win32::SecurityDescriptor descriptor(kPipeSddl);
  if (!descriptor) {
    log::Log(log::kError, kKiosk, "pipe security descriptor failed (%lu)", GetLastError());
    static_cast<void>(win32::WaitOrStop(nullptr, INFINITE));
    return;
  }
  OverlappedIo io;
  if (!io) {
    log::Log(log::kError, kKiosk, "pipe: cannot create the connect event (%lu)", GetLastError());
    static_cast<void>(win32::WaitOrStop(nullptr, INFINITE));
    return;
  }
  log::Log(log::kNotice, kKiosk, "listening on %s", win32::ToNarrow(kPipeName).c_str());

  bool first = true;
  FileHandle instance;  // the one that waits for a client
  // Without any instance left another process could take the name. So the next instance exists before the connected one is
  // given away, and while it cannot be made a second handle keeps the connected one, whose connection may end at any time.
  FileHandle keeper;
  while (!win32::StopRequested()) {
    if (!instance) {
      instance = CreateInstance(descriptor, first);
    }
    if (!instance) {
      log::Log(log::kError, kKiosk, "cannot create the pipe (%lu)", GetLastError());
      static_cast<void>(win32::WaitOrStop(nullptr, kCreateRetry));
      continue;
    }
    first = false;
    keeper.Reset();
    if (!Connect(instance.Get(), io)) {
      keeper.Reset(instance.Release());
      continue;
    }
    const std::uint64_t connectedAt = win32::PreciseFileTimeNow();
    FileHandle next = CreateInstance(descriptor, first);
    if (!next) {
      keeper = Duplicate(instance.Get());
    }
    StartConnection(std::move(instance), connectedAt);
    instance = std::move(next);
  }
}

long LiveConnections() noexcept { return liveConnections.load(); }

}  // namespace kiosk::pipe
