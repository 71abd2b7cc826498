// Who is at the other end of a connection. Both checks run on the connection's thread, in this order, before the
// request is looked at. Each returns an empty text to admit, or the reason of the refusal for the log; the client never
// learns the reason.
#pragma once

#include "pipe/image_look.h"
#include "win32/winapi.h"

#include <cstdint>
#include <string>

namespace kiosk::pipe {

struct CallerRecord {
  bool isSystem = false;        // the user is LocalSystem
  bool isInteractive = false;   // the token holds the Interactive group, enabled
  bool isKioskAccount = false;  // the user is the account whose SID the Kiosk state key holds
  DWORD sessionId = 0;
};

// Admits a process whose program file is validly signed by the service's own publisher. A service that is itself
// unsigned admits everybody while "DevAllowUnsigned" is 1, and nobody otherwise; one that does not know its own
// publisher yet admits nobody at all. `connectedAt` is the system time, in 100 ns units since 1601, at which the client
// was there.
std::string CheckCallerProcess(HANDLE pipe, std::uint64_t connectedAt, const Patience& patience);

// The Windows session and the process at the other end; 0 when Windows does not tell.
DWORD ClientSession(HANDLE pipe) noexcept;
DWORD ClientProcess(HANDLE pipe) noexcept;

// The process was created after `from` and not after `to`, both system times in 100 ns units since 1601; true as well
// when Windows does not tell.
[[nodiscard]] bool BeganBetween(HANDLE process, std::uint64_t from, std::uint64_t to) noexcept;

// Fills in `caller` from the token of the client. The thread carries that token only for as long as it takes to open
// it; when it cannot be put down again, the process ends with exit code 1.
std::string IdentifyCaller(HANDLE pipe, CallerRecord& caller);

}  // namespace kiosk::pipe
