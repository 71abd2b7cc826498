#pragma once

#include "timesync/sntp_packet.h"

#include <optional>
#include <string>

namespace kiosk::timesync {

// Asks the server once, over IPv4 and UDP port 123 of the first address of its name, how far the local clock is behind.
// Empty without a usable answer. Takes at most 20 s (15 for the name, 5 for the answer) and ends early on a stop.
std::optional<Milliseconds> QuerySntp(const std::wstring& server);

}  // namespace kiosk::timesync
