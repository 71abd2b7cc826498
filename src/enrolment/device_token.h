// The bearer credential of this terminal, kept in the registry only as a DPAPI blob of this machine and unprotected
// each time it is needed. Its presence is what makes the terminal enrolled.
#pragma once

#include "text/secret.h"

#include <string>

namespace kiosk::enrolment {

enum class TokenRead {
  kNone,
  kRead,
  kUnreadable,  // a token may be there, but the registry or DPAPI does not give it now; logged once for as long as that
                // lasts
};
// `token` is set only for kRead.
TokenRead ReadDeviceToken(text::Secret& token);

// The same for whom it makes no difference: empty unless it was read.
text::Secret ReadDeviceToken();

// Protects the state key, stores "DeviceToken", and flushes the key. Ends what an earlier enrolment left open: deletes
// "UnknownSince" and "TeardownPending"; while the latter is there, "TeardownSuperseded" says that the token is the
// newer of the two, and goes with it. False when the token could not be protected (logged) or stored, or when
// "TeardownPending" stays: then the token is deleted again. The caller holds the account lock, so that no teardown is
// half way.
bool StoreDeviceToken(const std::string& token);

}  // namespace kiosk::enrolment
