// The log calls into local files alone: for the central log shipper, since what it has to say of itself must not go through
// itself, and for the crash reporter.
#pragma once

#include "log/log.h"

namespace kiosk::log {

// As Log, into the local file of this service only; nothing when local files are off.
void LogLocal(int level, const char* format, ...) NORVANE_PRINTF(2, 3);

// For the crash reporter: an error as above, and first of all on its way to the file. While that is open, which any line of
// this process before it has seen to, neither the heap nor another thread is needed: the day is not looked at and nothing
// is pruned.
void LogFault(const char* format, ...) NORVANE_PRINTF(1, 2);

}  // namespace kiosk::log
