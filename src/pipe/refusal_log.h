// The log lines of refused callers. Anybody may be refused as often as he likes, and must not fill the log with it.
#pragma once

#include <string>

namespace kiosk::pipe {

// Logs "caller refused: ..." with the reason; from the eleventh of the same reason (which names the program) within a
// minute on it is only counted. Any thread.
void LogRefusal(const std::string& reason);

// One line for each reason that was counted in a minute that is over; in any minute with `all`. Called from time to
// time by the service thread, and by it at the end.
void TellCountedRefusals(bool all = false);

}  // namespace kiosk::pipe
