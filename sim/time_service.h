// The Windows Time service of the simulated computer, the library and the program that talk to it, and the names of
// hosts.
#pragma once

#include "sim/machine.h"

namespace sim {

struct TimeService {
  Field<> start{L"TimeService", L"Start", SERVICE_DEMAND_START};
  Field<> running{L"TimeService", L"Running"};
  Field<> startDelay{L"TimeService", L"StartDelay"};      // ms until a start shows
  Field<> startError{L"TimeService", L"StartError"};      // nothing is started
  Field<> startGivenUp{L"TimeService", L"StartGivenUp"};  // the error of a start that goes on
  Field<> noService{L"TimeService", L"NoService"};
  Field<> syncResult{L"TimeService", L"SyncResult"};  // of W32TimeSyncNow
  Field<> syncHangs{L"TimeService", L"SyncHangs"};
  Field<> noLibrary{L"TimeService", L"NoLibrary"};
  Field<> w32tm{L"TimeService", L"W32tm"};  // exit code; absent: it cannot be run; STILL_ACTIVE: it never ends
  Field<> syncs{L"TimeService", L"Syncs"};  // how often, like the next one
  Field<> w32tmRuns{L"TimeService", L"W32tmRuns"};
  // Signed, ms: what the service's source would say of the clock. An attempt that gets time samples sets the clock when
  // that is more than MaxAllowedPhaseOffset of the service's settings (1 s without the value), and leaves it to the
  // clock's rate otherwise, as "Windows Time service tools and settings" has it.
  Field<> behind{L"TimeService", L"Behind"};
  Field<> empty{L"TimeService", L"Empty"};  // so many attempts get no sample; W32TimeSyncNow does not tell
};
inline const TimeService timeService{};

// Where the name of a host leads, with a port in place of the one that was asked for. Other names are not found.
void SetHost(const std::wstring& name, const std::wstring& address, DWORD port);

// The simulated service's handle, or null.
inline const auto kTimeServiceHandle = reinterpret_cast<SC_HANDLE>(0x7155);
BOOL StartTimeService();
BOOL ConfigureTimeService(DWORD start);

}  // namespace sim
