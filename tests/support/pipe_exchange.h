// A client of the service's pipe, as plain as programs write it.
#pragma once

#include "pipe/server.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <string>
#include <string_view>

namespace kiosk::test {

// Connects as soon as an instance is free. Invalid after ten seconds without one.
inline win32::FileHandle ConnectToService() {
  const std::uint64_t end = win32::TickCount() + 10'000;
  for (;;) {
    win32::FileHandle pipe(CreateFileW(pipe::kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                       SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (pipe || win32::TickCount() > end) {
      return pipe;
    }
    // The service makes the next instance only after the one before was taken.
    if (GetLastError() != ERROR_PIPE_BUSY || WaitNamedPipeW(pipe::kPipeName, 1000) == 0) {
      SwitchToThread();
    }
  }
}

inline bool Send(HANDLE pipe, std::string_view bytes) {
  DWORD written = 0;
  return WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) != 0 &&
         written == bytes.size();
}

// The reply line, or what there is of it at the end of the connection.
inline std::string ReceiveLine(HANDLE pipe) {
  std::string line;
  char piece[4096];
  for (DWORD read = 0;
       !line.ends_with('\n') && ReadFile(pipe, piece, sizeof(piece), &read, nullptr) != 0 && read != 0;) {
    line.append(piece, read);
  }
  return line;
}

inline std::string Exchange(std::string_view request) {
  const win32::FileHandle pipe = ConnectToService();
  return pipe && Send(pipe.Get(), request) ? ReceiveLine(pipe.Get()) : std::string();
}

}  // namespace kiosk::test
