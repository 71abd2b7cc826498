// One file per component and day, in a folder per day below the log root. All state is in day_files.cpp, under one
// reader-writer lock: appending to an open file shares it, opening, closing and the change of day take it alone.
#pragma once

#include "win32/winapi.h"

#include <string_view>

namespace kiosk::log {

// Makes the folder of the given local day the current one; files of the day before are closed. For a minute after that
// an earlier date changes nothing. True when another day was replaced (the caller then prunes).
bool ChooseDay(const SYSTEMTIME& now) noexcept;

// Appends a whole line (with its newline) to the component's file of the current day, in one write. When the file does
// not take all of it, the file is opened anew, a newline ends the part that came onto the disk, and the line is written
// again; a second failure drops it silently.
void AppendLine(const char* component, std::string_view line) noexcept;

}  // namespace kiosk::log
