// The values of a power scheme that a policy decides, and the copies of what the computer had before.
#pragma once

#include "win32/winapi.h"

#include <cstddef>

namespace kiosk::power {

// A place in the table of settings; the order is part of the stored "PriorPower".
enum class SchemeSetting : std::size_t { kScreenOff = 0, kSleep = 1, kWakeTimers = 2 };

// Makes the setting read `value` (seconds, or 1 for wake timers) on mains and on battery; both are attempted. What is
// right already is not written. Before the first change of an enrolment all settings are saved as "PriorPower"; while
// that fails nothing is changed. `changed` becomes true with a write that succeeded. False when something could not be
// saved or written; that is logged. The caller holds the power lock.
bool SetPowerValue(const GUID& scheme, SchemeSetting setting, DWORD value, bool& changed);

// Puts the saved values back on the scheme they came from, where they differ, and makes them take effect when that
// scheme is the active one. Does nothing without usable copies, and leaves the copies alone. False, and logged, when
// nobody can tell now whether there are any. The caller holds the power lock and is in a COM apartment.
bool RestorePriorPower();

}  // namespace kiosk::power
