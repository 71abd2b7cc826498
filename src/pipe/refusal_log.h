// The log lines of refused callers and commands. Anybody may be refused as often as he likes, and must not fill the log
// with it.
#pragma once

#include "log/log.h"

namespace kiosk::pipe {

// A WARN line, printf-style as log::Log: "caller refused: ...", with the program's name in it, or "COMMAND refused:
// ...". The same line is logged ten times within a minute and then only counted. Any thread.
void LogRefusal(const char* format, ...) NORVANE_PRINTF(1, 2);

// Logs one line for each that was counted and whose minute is over; with `all`, for each that was counted. The
// service thread calls it from time to time, and at the end with `all`.
void TellCountedRefusals(bool all = false);

}  // namespace kiosk::pipe
