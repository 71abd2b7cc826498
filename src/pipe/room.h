// Room for clients: the table of connections that wait for their client or for the look at his program. It bounds what
// callers who may turn out to be nobody, and callers who keep the service waiting, can take up: whoever connects more
// often than there is room for loses his own oldest connections, and nobody else's.
#pragma once

#include "win32/handle.h"

namespace kiosk::pipe {

// A connection's place in the table: its own but for the time in which its request is carried out.
class Place {
 public:
  // Takes a place for a client of this Windows session and process. When there is none left, one connection is told to
  // end: in the session with the most, of the process with the most, the oldest. Service thread.
  Place(DWORD session, DWORD process);
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place() { static_cast<void>(Leave()); }

  // Gives the place up: until Return nobody ends the connection. False when it was ended before. The connection's
  // thread, as for Return.
  bool Leave() noexcept;

  // Takes a place as the client that came last. Once, after Leave.
  void Return() noexcept;

  // Set when the connection is to end. Null when Windows has no event for it: such a connection cannot be served.
  [[nodiscard]] HANDLE EndEvent() const noexcept { return end_.Get(); }
  [[nodiscard]] bool Ended() const noexcept { return WaitForSingleObject(end_.Get(), 0) == WAIT_OBJECT_0; }

 private:
  DWORD session_;
  DWORD process_;
  win32::KernelHandle end_;
};

}  // namespace kiosk::pipe
