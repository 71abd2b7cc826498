// Stacks, events, the pool and the variables of a thread, where Wine is kinder or poorer than Windows.
//
// QueueUserWorkItem: the pool has 512 threads for the whole process unless a call sets another limit in the upper half
// of its flags; a work item beyond them waits until one is free (Microsoft's page on the function).
//
// SetThreadStackGuarantee: Windows raises a stack overflow while as much of the stack as was asked for is left
// (Microsoft's page on the function); Wine keeps the number and raises it on the last page.
#pragma once

#include "win32/winapi.h"

namespace sim {

// While one lives no event can be created, as when the system is out of memory.
class NoEvents {
 public:
  NoEvents();
  NoEvents(const NoEvents&) = delete;
  NoEvents& operator=(const NoEvents&) = delete;
  ~NoEvents();
};

// As if a call had set that limit.
void LimitPool(DWORD threads);

// The simulation's own variables of a thread, which the compiler takes from the heap when they are first used. They are
// used as a thread begins, so that a test can see what the service does while the heap is locked.
bool TouchFaults();
bool TouchLocks();

}  // namespace sim
