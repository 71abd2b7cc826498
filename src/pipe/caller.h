// Who is at the other end of a connection. Both checks run on the connection's thread, in this order, before the
// request is looked at. Each returns an empty text to admit, or the reason of the refusal for the log; the client never
// learns the reason.
#pragma once

#include "pipe/image_look.h"
#include "win32/winapi.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::pipe {

// What the pipe tells of its client when he is there.
struct Client {
  std::uint64_t connectedAt = 0;  // system time, in 100 ns units since 1601
  std::optional<DWORD> session;   // empty, and 0 as process, when Windows does not tell
  DWORD process = 0;
};
Client ClientOf(HANDLE pipe) noexcept;

struct CallerRecord {
  bool isSystem = false;        // the user is LocalSystem
  bool isInteractive = false;   // the token holds the Interactive group, enabled
  bool isKioskAccount = false;  // the user is the account whose SID the Kiosk state key holds
  DWORD sessionId = 0;
};

// Admits a process whose program file is validly signed by the service's own publisher. A service that is itself
// unsigned admits everybody while "DevAllowUnsigned" is 1, and nobody otherwise; one that does not know its own
// publisher yet admits nobody at all.
std::string CheckCallerProcess(HANDLE pipe, const Client& client, const Patience& patience);

// The process was created after `from` and not after `to`, both system times in 100 ns units since 1601; true as well
// when Windows does not tell.
[[nodiscard]] bool BeganBetween(HANDLE process, std::uint64_t from, std::uint64_t to) noexcept;

// Fills in `caller` from the token of the client. The thread carries that token only for as long as it takes to open
// it; when it cannot be put down again, the process ends with exit code 1.
std::string IdentifyCaller(HANDLE pipe, const Client& client, CallerRecord& caller);

}  // namespace kiosk::pipe
