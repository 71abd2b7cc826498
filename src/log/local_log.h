// The log call for the central log shipper alone: what it has to say of itself must not go through itself.
#pragma once

#include "log/log.h"

namespace kiosk::log {

// As Log, into the local file of this service only; nothing when local files are off.
void LogLocal(int level, const char* format, ...) NORVANE_PRINTF(2, 3);

}  // namespace kiosk::log
