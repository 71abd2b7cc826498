// The client's side of the service's local pipe: one request, one reply.
#pragma once

#include "json/value.h"
#include "text/secret.h"

namespace kioskctl {

enum class Outcome {
  kReply,       // the service answered; `reply` holds its object
  kNoService,   // nobody serves the pipe
  kNotAllowed,  // Windows does not let this user open the pipe
  kImpostor,    // somebody other than the service serves the pipe; nothing was sent
  kBroken,      // the connection ended, or nothing came in time
};

struct Answer {
  Outcome outcome = Outcome::kBroken;
  kiosk::json::Value reply;
  unsigned long error = 0;  // Windows error behind an outcome that is no reply
};

// What the service manager says of the service.
struct ServiceState {
  bool known = false;       // it says something; else `error` is why not (ERROR_SERVICE_DOES_NOT_EXIST: it is missing)
  unsigned long state = 0;  // SERVICE_RUNNING and its like
  unsigned long process = 0;   // 0 while it does not run
  unsigned long exitCode = 0;  // of its last end
  unsigned long error = 0;
};
ServiceState QueryService();

// Milliseconds that a reply may take: the service may be waiting for the portal, and then for the work of others on the
// kiosk account.
inline constexpr unsigned long kReplyWait = 240'000;
// And while a pairing is being completed: two calls to the portal, the work of others on the kiosk account, what
// Windows takes to make an account and a profile; all that twice, when another program asks at the same moment.
inline constexpr unsigned long kPairWait = 600'000;

// And one that waits for nobody.
inline constexpr unsigned long kStatusWait = 10'000;

// Sends one line, of which no copy is left in memory, and waits for the reply line. A service that is just starting is
// waited for, up to a minute. The service may learn who calls but not act as the caller.
Answer Ask(kiosk::text::Secret request, unsigned long replyWait = kReplyWait);

}  // namespace kioskctl
