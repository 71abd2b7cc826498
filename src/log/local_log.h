// The log calls into local files alone: for the central log shipper, since what it has to say of itself must not go
// through itself, and for the crash reporter.
#pragma once

#include "log/log.h"

namespace kiosk::log {

// As Log, into the local file of this service only; nothing when local files are off.
void LogLocal(int level, const char* format, ...) NORVANE_PRINTF(2, 3);

// For the crash reporter: logs an error as above, and needs no heap if the file is open, as it is after any earlier
// line of this process. Neither chooses the day nor prunes, unless it is the first line itself.
void LogFault(const char* format, ...) NORVANE_PRINTF(1, 2);

}  // namespace kiosk::log
