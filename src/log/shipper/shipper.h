// The central log shipper, as the log sees it: three operations. Central shipping is off in this build, so the log goes
// to local files alone and the start banner says so.
#pragma once

#include "log/identity.h"

#include <string_view>

namespace kiosk::log::shipper {

// Called once while logging is initialised, after its folders exist. True when lines will be shipped.
inline bool Start(const Identity& /*identity*/) noexcept { return false; }

// Takes a line over without ever waiting for the network and without failing.
inline void HandOff(int /*level*/, const char* /*component*/, std::string_view /*message*/) noexcept {}

// Ends the sender; waits for it at most `milliseconds`.
inline void Stop(unsigned /*milliseconds*/) noexcept {}

}  // namespace kiosk::log::shipper
