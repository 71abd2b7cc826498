#pragma once

#include "timesync/sntp_packet.h"
#include "win32/winapi.h"

#include <optional>
#include <string>

namespace kiosk::timesync {

// What a query takes at most, in ms: 15 s for the name, 5 s for the answer.
inline constexpr DWORD kSntpQueryTime = 20'000;

// Asks the server once, over IPv4 and UDP port 123 of the first address of its name, how far the local clock is behind.
// Empty without a usable answer. Takes at most `most` milliseconds and ends early on a stop.
std::optional<Milliseconds> QuerySntp(const std::wstring& server, DWORD most = kSntpQueryTime);

}  // namespace kiosk::timesync
