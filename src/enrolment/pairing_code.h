// The pairing code that a person is about to enter in the portal, and the lock around a pairing. A leaf of its own:
// pairing uses it, and whatever ends an enrolment clears it.
#pragma once

#include "win32/lock.h"

#include <string>

namespace kiosk::enrolment {

// Held by the pairing commands from their first look at the code to the end of the first check-in, so that two polls
// never store two tokens.
win32::Lock& PairingLock() noexcept;

// The pending code; empty when none is. The caller holds the pairing lock.
std::string PendingPairingCode() REQUIRES(PairingLock());
void SetPendingPairingCode(const std::string& code) REQUIRES(PairingLock());

}  // namespace kiosk::enrolment
