// The table of connections whose caller is not verified yet. It bounds what callers who may turn out to be nobody can
// take up: whoever connects more often than it has room for loses his own oldest connections, and nobody else's.
#pragma once

#include "win32/handle.h"

namespace kiosk::pipe {

// A place in the table. A connection holds it until its caller is verified, or, if he is refused, until it ends.
class Unverified {
 public:
  // Takes a place for a client of this Windows session and process. When there is none left, one connection is told to
  // end: in the session with the most, of the process with the most, the oldest. Service thread.
  Unverified(DWORD session, DWORD process);
  Unverified(const Unverified&) = delete;
  Unverified& operator=(const Unverified&) = delete;
  ~Unverified() { static_cast<void>(Leave()); }

  // Gives the place up: from then on nobody ends the connection. False when it was ended before. The connection's
  // thread.
  bool Leave() noexcept;

  // Set when the connection is to end. Null when Windows has no event for it: such a connection cannot be served.
  [[nodiscard]] HANDLE EndEvent() const noexcept { return end_.Get(); }
  [[nodiscard]] bool Ended() const noexcept { return WaitForSingleObject(end_.Get(), 0) == WAIT_OBJECT_0; }

 private:
  win32::KernelHandle end_;
};

}  // namespace kiosk::pipe
