// The Windows Time service of the simulated computer, the library and the program that talk to it, and the names of
// hosts.
//
// Area "TimeService", numbers: "Start" (as SERVICE_DEMAND_START, which it is at first), "Running" (1), "StartDelay" (ms
// until a start shows, 0), "StartError" (nothing is started), "StartGivenUp" (the error of a start that goes on),
// "NoService" (1: it is not there), "SyncResult" (of W32TimeSyncNow, 0), "SyncHangs" (1), "NoLibrary" (1), "W32tm"
// (exit code of the program; absent: it cannot be run; STILL_ACTIVE: it never ends). "Syncs" and "W32tmRuns" count.
//
// "Behind" (signed, ms): what the service's source would say of the clock. An attempt that gets time samples sets the
// clock when that is more than MaxAllowedPhaseOffset of the service's settings (1 s without the value), and leaves it
// to the clock's rate otherwise, as "Windows Time service tools and settings" has it. "Empty" (a count): attempts that
// get no sample; W32TimeSyncNow does not tell.
//
// Area "Hosts\\<name>": "Address" (text) and "Port", in place of the port that was asked for. Other names are not
// found.
#pragma once

#include "win32/winapi.h"

namespace sim {

// The simulated service's handle, or null.
inline const auto kTimeServiceHandle = reinterpret_cast<SC_HANDLE>(0x7155);
BOOL StartTimeService();
BOOL ConfigureTimeService(DWORD start);

}  // namespace sim
