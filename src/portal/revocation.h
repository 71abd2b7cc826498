// What a refusal of the device token means for the terminal.
#pragma once

#include "portal/check_in.h"

#include <string>

namespace kiosk::portal {

// Acts on the device status of a check-in that was made with `tokenUsed`: a terminal that the portal says was removed
// is torn down at once; one whose token the portal does not recognise, once that has lasted for 24 hours
// ("UnknownSince", which this writes). True when the caller must treat the terminal as revoked. An answer to a token
// that is no longer the stored one removes nothing. Logged. The caller holds neither the pairing nor the account lock.
bool HandleDeviceStatus(const CheckInResult& result, const std::string& tokenUsed);

}  // namespace kiosk::portal
