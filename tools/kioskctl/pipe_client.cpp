#include "pipe_client.h"

#include "json/parse.h"
#include "pipe/overlapped.h"
#include "pipe/server.h"
#include "service/install.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <string>
#include <string_view>
#include <utility>

namespace kioskctl {
namespace {

using kiosk::pipe::kPipeName;
using kiosk::text::Secret;
using kiosk::win32::Deadline;
using kiosk::win32::FileHandle;
using kiosk::win32::ServiceHandle;

constexpr DWORD kStartWait = 60'000;   // a removal that was pending when the service started takes most of it
constexpr DWORD kRunningWait = 5'000;  // for the pipe of a service that runs, and for room on it
constexpr DWORD kPoll = 100;
constexpr DWORD kChunk = 4096;

void WaitWhileItStarts() {
  const Deadline deadline(kStartWait);
  while (QueryService().state == SERVICE_START_PENDING && !deadline.Passed()) {
    Sleep(kPoll);
  }
}

// The service says that it runs a moment before it makes its pipe.
FileHandle Open() {
  WaitWhileItStarts();
  const Deadline deadline(kRunningWait);
  while (true) {
    FileHandle pipe(CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    const DWORD error = GetLastError();
    const bool mayCome =
        error == ERROR_PIPE_BUSY || (error == ERROR_FILE_NOT_FOUND && QueryService().state == SERVICE_RUNNING);
    if (pipe || !mayCome || deadline.Passed()) {
      SetLastError(error);
      return pipe;
    }
    if (error == ERROR_PIPE_BUSY) {
      WaitNamedPipeW(kPipeName, deadline.Left());
    } else {
      Sleep(kPoll);
    }
  }
}

// False when the service manager names another process than the one that serves the pipe, and when it says that the
// service is not there or does not run: then the pipe is somebody else's. What cannot be found out counts as fine: a
// user without rights to ask must still be able to pair.
bool ServedByService(HANDLE pipe) {
  ULONG server = 0;
  if (GetNamedPipeServerProcessId(pipe, &server) == 0) {
    return true;
  }
  const ServiceState service = QueryService();
  return service.known ? service.process == server : service.error != ERROR_SERVICE_DOES_NOT_EXIST;
}

// One transfer, which `start` begins, waited for until the deadline. The number of bytes; 0, with the last error, when
// it failed.
template <typename Start>
DWORD Transfer(HANDLE pipe, const Deadline& deadline, Start start) {
  kiosk::pipe::OverlappedIo io;
  if (!io) {
    return 0;
  }
  const BOOL started = start(io.Begin());
  const kiosk::pipe::IoResult result = io.Finish(pipe, started, deadline.Left());
  if (result.end == kiosk::pipe::IoEnd::kTimeout) {
    SetLastError(ERROR_TIMEOUT);
  }
  return result.bytes;
}

bool ReadLine(HANDLE pipe, const Deadline& deadline, Secret& line) {
  std::string chunk(kChunk, '\0');
  bool whole = false;
  DWORD read = 1;
  while (read != 0 && !whole) {
    read = Transfer(pipe, deadline,
                    [&](OVERLAPPED* overlapped) { return ReadFile(pipe, chunk.data(), kChunk, nullptr, overlapped); });
    const std::string_view piece(chunk.data(), read);
    line.Append(piece);
    whole = piece.find('\n') != std::string_view::npos;
  }
  const DWORD error = GetLastError();
  kiosk::text::Wipe(chunk);
  SetLastError(error);
  return whole;
}

}  // namespace

ServiceState QueryService() {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(manager ? OpenServiceW(manager.Get(), kiosk::service::kServiceName, SERVICE_QUERY_STATUS)
                                      : nullptr);
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!service || QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                       sizeof(status), &needed) == 0) {
    return {.error = GetLastError()};
  }
  return {true, status.dwCurrentState, status.dwProcessId, status.dwWin32ExitCode, ERROR_SUCCESS};
}

Answer Ask(Secret request, DWORD replyWait) {
  const FileHandle pipe = Open();
  if (!pipe) {
    const DWORD error = GetLastError();
    return {error == ERROR_ACCESS_DENIED ? Outcome::kNotAllowed : Outcome::kNoService, {}, error};
  }
  if (!ServedByService(pipe.Get())) {
    return {Outcome::kImpostor, {}, ERROR_SUCCESS};
  }
  const Deadline deadline(replyWait);
  request.Append("\n");
  const std::string& line = request.Get();
  const DWORD sent = Transfer(pipe.Get(), deadline, [&](OVERLAPPED* overlapped) {
    return WriteFile(pipe.Get(), line.data(), static_cast<DWORD>(line.size()), nullptr, overlapped);
  });
  Secret reply;
  if (sent == 0 || !ReadLine(pipe.Get(), deadline, reply)) {
    return {Outcome::kBroken, {}, GetLastError()};
  }
  auto parsed = kiosk::json::Parse(reply.Get());
  if (!parsed || !parsed->IsObject()) {
    return {Outcome::kBroken, {}, ERROR_INVALID_DATA};
  }
  return {Outcome::kReply, std::move(*parsed), ERROR_SUCCESS};
}

}  // namespace kioskctl
