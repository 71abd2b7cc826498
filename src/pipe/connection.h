// One connection: one request line, one reply line.
#pragma once

#include "pipe/caller.h"
#include "pipe/room.h"
#include "win32/handle.h"

namespace kiosk::pipe {

// Serves the client of a connected instance, closes it, and then does what the command left to be done after its reply.
// `place` is its place in the room. On the connection's own thread.
void ServeConnection(win32::FileHandle pipe, const Client& client, Place& place) noexcept;

}  // namespace kiosk::pipe
