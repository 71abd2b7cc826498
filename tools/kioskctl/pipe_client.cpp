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

constexpr DWORD kBusyWait = 5'000;
constexpr DWORD kChunk = 4096;

FileHandle Open() {
  const Deadline deadline(kBusyWait);
  while (true) {
    FileHandle pipe(CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (pipe || GetLastError() != ERROR_PIPE_BUSY || deadline.Passed()) {
      return pipe;
    }
    WaitNamedPipeW(kPipeName, deadline.Left());
  }
}

// False when the service manager names another process than the one that serves the pipe, and when it says that the
// service is not there or does not run: then the pipe is somebody else's. What cannot be found out counts as fine: a
// user without rights to ask must still be able to pair.
bool ServedByService(HANDLE pipe) {
  ULONG server = 0;
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager || GetNamedPipeServerProcessId(pipe, &server) == 0) {
    return true;
  }
  const ServiceHandle service(OpenServiceW(manager.Get(), kiosk::service::kServiceName, SERVICE_QUERY_STATUS));
  if (!service) {
    return GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
  }
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                              &needed) == 0 ||
         status.dwProcessId == server;  // 0 while it does not run
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
