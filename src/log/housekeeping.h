// Keeps the log folder under its size cap and old flat files out of its root.
#pragma once

#include "win32/winapi.h"

namespace kiosk::log {

// Moves flat files (*.log, *.dmp) of other days from the root to `<root>\Archive` and deletes what has been there for
// more than 30 days. Nothing is reported. `today` is the local date.
void ArchiveOldFiles(const SYSTEMTIME& today);

// Deletes the oldest log files until all together are at most "LogCapMB" megabytes, then empty folders of other days.
// One process at a time; if another is at it, nothing is done.
void Prune();

}  // namespace kiosk::log
