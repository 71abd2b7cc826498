// The log lines of refused callers. Anybody may be refused as often as he likes, and must not fill the log with it.
#pragma once

#include <string>

namespace kiosk::pipe {

// Logs "caller refused: ..." with the reason, which names the program. The same reason is logged ten times within a
// minute and then only counted. Any thread.
void LogRefusal(const std::string& reason);

// Logs one line for each reason that was counted and whose minute is over; with `all`, for each that was counted. The
// service thread calls it from time to time, and at the end with `all`.
void TellCountedRefusals(bool all = false);

}  // namespace kiosk::pipe
