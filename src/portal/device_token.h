// The bearer credential of this terminal, kept in the registry only as a DPAPI blob of this machine and unprotected each
// time it is needed. Its presence is what makes the terminal enrolled.
#pragma once

#include "text/secret.h"

#include <string>

namespace kiosk::portal {

// Empty when there is none or it cannot be unprotected (the latter is logged).
text::Secret ReadDeviceToken();

// Protects the state key, stores the token, makes that durable, and ends what an earlier enrolment left open
// ("UnknownSince", "TeardownPending"). False when it could not be protected (logged) or stored. The caller holds the account
// lock, so that no teardown is half way.
bool StoreDeviceToken(const std::string& token);

}  // namespace kiosk::portal
