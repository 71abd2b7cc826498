// Stacks, events and the variables of a thread, where Wine is kinder or poorer than Windows.
//
// SetThreadStackGuarantee: Windows raises a stack overflow while as much of the stack as was asked for is left
// (Microsoft's page on the function); Wine keeps the number and raises it on the last page.
#pragma once

namespace sim {

// While one lives no event can be created, as when the system is out of memory.
class NoEvents {
 public:
  NoEvents();
  NoEvents(const NoEvents&) = delete;
  NoEvents& operator=(const NoEvents&) = delete;
  ~NoEvents();
};

// The simulation's own variables of a thread, which the compiler takes from the heap when they are first used. They are
// used as a thread begins, so that a test can see what the service does while the heap is locked.
bool TouchFaults();
bool TouchLocks();

}  // namespace sim
