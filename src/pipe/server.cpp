#include "pipe/server.h"

#include "log/log.h"
#include "pipe/caller.h"
#include "pipe/connection.h"
#include "pipe/overlapped.h"
#include "pipe/refusal_log.h"
#include "pipe/room.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <utility>

namespace kiosk::pipe {
namespace {

using log::kKiosk;
using win32::FileHandle;

// Protected. SYSTEM has all rights. Interactive users (at the console or remote) may read and write, but not create
// instances of the pipe. Nobody else, services and network logons included, may open it.
constexpr wchar_t kPipeSddl[] = L"D:P(A;;GA;;;SY)(A;;0x12019b;;;IU)";
constexpr DWORD kBufferSize = 8192;
constexpr DWORD kRetry = 2000;
constexpr DWORD kTellRefusals = 60'000;
// More live connections come about only by requests that are being carried out. Each of those that come then waits so
// many milliseconds at most for another one to end: a storm is served as fast as its requests are answered, and who
// waits for the portal keeps nobody else out. If none ends it gets a thread of its own, so that nobody takes up all
// that Windows' pool has.
constexpr long kManyConnections = 42;
constexpr DWORD kWaitForRoom = 50;

// Raised by the service thread, lowered by each connection's thread at its end.
std::atomic<long> liveConnections{0};
// Auto reset, set when the count was lowered. Made before there is a connection and never closed, since their threads
// may outlive main. Null when Windows had no event.
HANDLE connectionEnded = nullptr;

// A stream of bytes, since a request may come in any pieces; nobody from another computer, whatever the list says.
FileHandle CreateInstance(const win32::SecurityDescriptor& descriptor, bool first) noexcept {
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  const DWORD firstOnly = first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
  return FileHandle(CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | firstOnly,
                                     PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                                     PIPE_UNLIMITED_INSTANCES, kBufferSize, kBufferSize, 0, &attributes));
}

// Waits without time limit for a client. ERROR_SUCCESS when one is there; when the service is to stop, whatever.
DWORD Connect(HANDLE instance, OverlappedIo& io) noexcept {
  BOOL connected = ConnectNamedPipe(instance, io.Begin());
  const DWORD error = connected != 0 ? ERROR_SUCCESS : GetLastError();
  if (error == ERROR_PIPE_CONNECTED) {
    return ERROR_SUCCESS;
  }
  if (error == ERROR_IO_PENDING) {
    win32::WaitResult waited = win32::WaitResult::kTimeout;
    while (waited == win32::WaitResult::kTimeout) {
      waited = io.Await(kTellRefusals);
      TellCountedRefusals();
    }
    connected = waited == win32::WaitResult::kSignaled ? TRUE : FALSE;
  }
  SetLastError(error);
  return io.Finish(instance, connected, 0).end == IoEnd::kDone ? ERROR_SUCCESS : GetLastError();
}

// A client that came and went before anybody waited for it is none. What else fails twice in a row is told once and
// tried again slowly.
void AfterConnect(DWORD error, int& failures) noexcept {
  if (error == ERROR_SUCCESS || error == ERROR_NO_DATA) {
    failures = 0;
    return;
  }
  failures = std::min(failures + 1, 3);
  if (failures == 2) {
    log::Log(log::kError, kKiosk, "cannot connect the pipe (%lu)", error);
  }
  if (failures >= 2) {
    static_cast<void>(win32::WaitOrStop(nullptr, kRetry));
  }
}

FileHandle Duplicate(HANDLE instance) noexcept {
  FileHandle copy;
  DuplicateHandle(GetCurrentProcess(), instance, GetCurrentProcess(), copy.Put(), 0, FALSE, DUPLICATE_SAME_ACCESS);
  return copy;
}

bool HasRoom() noexcept { return liveConnections.load() < kManyConnections; }

// Whether there is room, at once or in time.
bool AwaitRoom() noexcept {
  if (!HasRoom()) {
    const win32::Deadline deadline(kWaitForRoom);
    while (!HasRoom() && !deadline.Passed() &&
           win32::WaitOrStop(connectionEnded, deadline.Left()) != win32::WaitResult::kStop) {
    }
  }
  return HasRoom();
}

void StartConnection(FileHandle instance, const Client& client) noexcept {
  try {
    auto place = std::make_unique<Place>(client.session.value_or(0), client.process);
    const bool room = AwaitRoom();
    liveConnections.fetch_add(1);
    auto serve = [pipe = std::move(instance), client, place = std::move(place)]() mutable noexcept {
      ServeConnection(std::move(pipe), client, *place);
      place.reset();
      liveConnections.fetch_sub(1);
      SetEvent(connectionEnded);
    };
    if (room ? win32::RunOnPool(std::move(serve))
             : static_cast<bool>(win32::StartThread(std::move(serve), win32::kSmallStack))) {
      return;
    }
    log::Log(log::kError, kKiosk, "pipe: cannot start a connection thread (%lu)", GetLastError());
  } catch (const std::exception& problem) {
    log::Log(log::kError, kKiosk, "pipe: cannot start a connection thread (%s)", problem.what());
  }
  // A service that can start no thread is of no use to anybody, and the service manager starts a fresh one.
  log::EndProcess(1);
}

// Until the service is to stop.
void AcceptClients(const win32::SecurityDescriptor& descriptor, OverlappedIo& io) {
  bool first = true;
  int failures = 0;
  FileHandle instance;  // the one that waits for a client
  // Without any instance left another process could take the name. So the next instance exists before the connected one
  // is given away, and while it cannot be made a second handle keeps the connected one, whose connection may end at any
  // time.
  FileHandle keeper;
  while (!win32::StopRequested()) {
    if (!instance) {
      instance = CreateInstance(descriptor, first);
    }
    if (!instance) {
      log::Log(log::kError, kKiosk, "cannot create the pipe (%lu)", GetLastError());
      static_cast<void>(win32::WaitOrStop(nullptr, kRetry));
      continue;
    }
    first = false;
    keeper.Reset();
    const DWORD error = Connect(instance.Get(), io);
    if (win32::StopRequested()) {
      return;
    }
    AfterConnect(error, failures);
    if (error != ERROR_SUCCESS) {
      keeper.Reset(instance.Release());
      continue;
    }
    const Client client = ClientOf(instance.Get());
    FileHandle next = CreateInstance(descriptor, first);
    if (!next) {
      keeper = Duplicate(instance.Get());
    }
    StartConnection(std::move(instance), client);
    instance = std::move(next);
  }
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
  connectionEnded = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  log::Log(log::kNotice, kKiosk, "listening on %s", win32::ToNarrow(kPipeName).c_str());
  AcceptClients(descriptor, io);
  TellCountedRefusals(true);
}

long LiveConnections() noexcept { return liveConnections.load(); }

}  // namespace kiosk::pipe
