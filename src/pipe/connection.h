// One connection: one request line, one reply line.
#pragma once

#include "pipe/room.h"
#include "win32/handle.h"

#include <cstdint>

namespace kiosk::pipe {

// Serves the client of a connected instance, closes it, and then does what the command left to be done after its reply.
// The body of the connection's own thread. `connectedAt` is the system time, in 100 ns units since 1601, at which the
// client was there; `place` its place in the room.
void ServeConnection(win32::FileHandle pipe, std::uint64_t connectedAt, Place& place) noexcept;

}  // namespace kiosk::pipe
