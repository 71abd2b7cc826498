// Power schemes and sleep of the simulated machine (area "Power"). It begins with two schemes, the first one active.
#pragma once

#include "sim/machine.h"

#include <string>
#include <vector>

namespace sim {

struct Power {
  Field<> readError{L"Power", L"ReadError"};  // of every read of an index
  Field<> suspendError{L"Power", L"SuspendError"};
  Field<> requestError{L"Power", L"RequestError"};  // of PowerCreateRequest
  Field<> rtcWake{L"Power", L"RtcWake", PowerSystemSleeping3};
  Field<> alwaysConnected{L"Power", L"AlwaysConnected"};
  Field<> capabilitiesUnknown{L"Power", L"CapabilitiesUnknown"};
  Field<> suspends{L"Power", L"Suspends"};  // how often it went to sleep
  Field<> executionState{L"Power", L"ExecutionState"};
};
inline const Power power{};

inline constexpr wchar_t kBalanced[] = L"{381B4222-F694-41F0-9685-FF5BB260DF2E}";
inline constexpr wchar_t kHighPerformance[] = L"{8C5E7FDA-E8BF-4A96-9A85-A6E23A8C635C}";

// Display off, standby, wake timers; each on mains, then on battery. kNoIndex: the scheme has no such setting.
using Indexes = std::vector<DWORD>;
inline constexpr DWORD kNoIndex = 0xFFFFFFFE;
// "": what the computer goes by, the active scheme as it was when it was last made active.
Indexes SchemeIndexes(const std::wstring& scheme);
void SetSchemeIndexes(const std::wstring& scheme, const Indexes& indexes);
void MakeSchemeActive(const std::wstring& scheme);  // "": none is

// Whether a power request of this process keeps the computer from sleeping when it is idle. Going to sleep ends every
// request that is set (PowerSetRequest: sleep that somebody asks for terminates them; here all sleep does).
bool SystemIsRequired();
// A timer woke the computer and nobody has touched it: the unattended idle timer ends ("System Wake-up Events": after
// two minutes), and it sleeps again unless the system is required. True when it does.
bool SleepAgainUnattended();

std::vector<std::string> PowerLines();  // for the dump

}  // namespace sim
