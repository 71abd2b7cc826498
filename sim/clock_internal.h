// What the time calls of the simulation need of the clock.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <memory>

// NOLINTBEGIN(readability-identifier-naming): the names that SIM gives
extern "C" HANDLE WINAPI sim_CreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE body,
                                          LPVOID argument, DWORD flags, LPDWORD id);
extern "C" void WINAPI sim_Sleep(DWORD milliseconds);
// NOLINTEND(readability-identifier-naming)

namespace sim {

bool ClockIsVirtual();
std::uint64_t VirtualTicks();
std::uint64_t VirtualUtc();
int VirtualBias();
void StepSystemTime(std::int64_t milliseconds);  // Windows sets the clock; nothing happens while time is real
DWORD WaitMany(DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds);  // under either time
void SleepVirtually(DWORD milliseconds);
bool TouchClock();  // as TouchFaults of sim/threads.h

// A thread or work item of the service on its way to its own body. It counts as running from the moment of Starting.
struct Participant;
struct Start {
  LPTHREAD_START_ROUTINE body;
  void* argument;
  Participant* participant;  // null under real time
  bool ownThread;            // ends with the body, unlike a thread of the pool
};
std::unique_ptr<Start> Starting(LPTHREAD_START_ROUTINE body, void* argument, bool ownThread);
void NotStarted(const Start& start);
DWORD WINAPI RunStarted(void* start);  // takes the Start over

}  // namespace sim
