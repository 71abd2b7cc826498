#include "pipe_client.h"

#include "json/parse.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <string>
#include <string_view>
#include <utility>

namespace kioskctl {
namespace {

using kiosk::text::Secret;
using kiosk::win32::Deadline;
using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

constexpr wchar_t kPipe[] = L"\\\\.\\pipe\\NorvaneKiosk";
constexpr DWORD kBusyWait = 5'000;
constexpr DWORD kChunk = 4096;

FileHandle Open() {
  const Deadline deadline(kBusyWait);
  while (true) {
    FileHandle pipe(CreateFileW(kPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (pipe || GetLastError() != ERROR_PIPE_BUSY || deadline.Passed()) {
      return pipe;
    }
    WaitNamedPipeW(kPipe, deadline.Left());
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
  const ServiceHandle service(OpenServiceW(manager.Get(), L"NorvaneKiosk", SERVICE_QUERY_STATUS));
  if (!service) {
    return GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
  }
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                              &needed) == 0 ||
         status.dwProcessId == server;  // 0 while it does not run
}

// One overlapped transfer, waited for until the deadline.
template <typename Start>
bool Transfer(HANDLE pipe, const Deadline& deadline, DWORD* moved, Start start) {
  const KernelHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED overlapped{};
  overlapped.hEvent = event.Get();
  if (start(&overlapped) == 0 && GetLastError() != ERROR_IO_PENDING) {
    return false;
  }
  if (WaitForSingleObject(event.Get(), deadline.Left()) != WAIT_OBJECT_0) {
    CancelIoEx(pipe, &overlapped);
    GetOverlappedResult(pipe, &overlapped, moved, TRUE);
    SetLastError(ERROR_TIMEOUT);
    return false;
  }
  return GetOverlappedResult(pipe, &overlapped, moved, FALSE) != 0;
}

bool ReadLine(HANDLE pipe, const Deadline& deadline, Secret& line) {
  std::string chunk(kChunk, '\0');
  bool whole = false;
  bool ok = true;
  while (ok && !whole) {
    DWORD read = 0;
    ok = Transfer(pipe, deadline, &read,
                  [&](OVERLAPPED* overlapped) { return ReadFile(pipe, chunk.data(), kChunk, nullptr, overlapped); }) &&
         read != 0;
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
  DWORD written = 0;
  const bool sent = Transfer(pipe.Get(), deadline, &written, [&](OVERLAPPED* overlapped) {
    return WriteFile(pipe.Get(), line.data(), static_cast<DWORD>(line.size()), nullptr, overlapped);
  });
  Secret reply;
  if (!sent || !ReadLine(pipe.Get(), deadline, reply)) {
    return {Outcome::kBroken, {}, GetLastError()};
  }
  auto parsed = kiosk::json::Parse(reply.Get());
  if (!parsed || !parsed->IsObject()) {
    return {Outcome::kBroken, {}, ERROR_INVALID_DATA};
  }
  return {Outcome::kReply, std::move(*parsed), ERROR_SUCCESS};
}

}  // namespace kioskctl
