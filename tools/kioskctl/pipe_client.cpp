#include "pipe_client.h"

#include "json/parse.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <array>

namespace kioskctl {
namespace {

using kiosk::win32::Deadline;
using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;
using kiosk::win32::ServiceHandle;

constexpr wchar_t kPipe[] = L"\\\\.\\pipe\\NorvaneKiosk";
constexpr DWORD kBusyWait = 5'000;

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

// False only when the service manager names another process than the one that serves the pipe. What cannot be found out
// counts as fine: a user without rights to ask must still be able to pair.
bool ServedByService(HANDLE pipe) {
  ULONG server = 0;
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(manager ? OpenServiceW(manager.Get(), L"NorvaneKiosk", SERVICE_QUERY_STATUS) : nullptr);
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (!service || GetNamedPipeServerProcessId(pipe, &server) == 0 ||
      QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                           &needed) == 0) {
    return true;
  }
  return status.dwProcessId == 0 || status.dwProcessId == server;
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

bool ReadLine(HANDLE pipe, const Deadline& deadline, std::string& line) {
  std::array<char, 4096> chunk{};
  while (line.find('\n') == std::string::npos) {
    DWORD read = 0;
    const bool ok = Transfer(pipe, deadline, &read, [&](OVERLAPPED* overlapped) {
      return ReadFile(pipe, chunk.data(), chunk.size(), nullptr, overlapped);
    });
    if (!ok || read == 0) {
      return false;
    }
    line.append(chunk.data(), read);
  }
  return true;
}

}  // namespace

Answer Ask(const std::string& request, DWORD replyWait) {
  const FileHandle pipe = Open();
  if (!pipe) {
    const DWORD error = GetLastError();
    return {error == ERROR_ACCESS_DENIED ? Outcome::kNotAllowed : Outcome::kNoService, {}, error};
  }
  if (!ServedByService(pipe.Get())) {
    return {Outcome::kImpostor, {}, ERROR_SUCCESS};
  }
  const Deadline deadline(replyWait);
  const std::string line = request + "\n";
  DWORD written = 0;
  const bool sent = Transfer(pipe.Get(), deadline, &written, [&](OVERLAPPED* overlapped) {
    return WriteFile(pipe.Get(), line.data(), static_cast<DWORD>(line.size()), nullptr, overlapped);
  });
  std::string reply;
  if (!sent || !ReadLine(pipe.Get(), deadline, reply)) {
    return {Outcome::kBroken, {}, GetLastError()};
  }
  auto parsed = kiosk::json::Parse(reply);
  if (!parsed || !parsed->IsObject()) {
    return {Outcome::kBroken, {}, ERROR_INVALID_DATA};
  }
  return {Outcome::kReply, std::move(*parsed), ERROR_SUCCESS};
}

}  // namespace kioskctl
