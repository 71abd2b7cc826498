// Starting threads, and work for those of Windows' pool. Windows threads rather than std::thread: the stack reservation
// can be chosen and joining can have a time limit.
#pragma once

#include "win32/handle.h"

#include <memory>
#include <type_traits>
#include <utility>

namespace kiosk::win32 {

// The usual reservation of the program file.
inline constexpr SIZE_T kDefaultStack = 0;
// Enough for the deepest path of a pipe connection (the parser at 64 levels, the certificate calls).
inline constexpr SIZE_T kSmallStack = SIZE_T{512} * 1024;

// What a thread that was started or taken from the pool does first: it takes the body over.
template <typename Body>
DWORD WINAPI RunBody(void* raw) noexcept {
  static_assert(std::is_nothrow_invocable_v<Body>, "a thread's body must be noexcept");
  const std::unique_ptr<Body> mine(static_cast<Body*>(raw));
  (*mine)();
  return 0;
}

// Starts a thread that runs `body` (callable without arguments, which must not throw: an edge that can see exceptions
// catches and logs them itself). The handle serves to join; releasing it detaches the thread. Invalid when the thread
// cannot be created; the last error says why.
template <typename Body>
KernelHandle StartThread(Body body, SIZE_T stackReserve = kDefaultStack) {
  auto owned = std::make_unique<Body>(std::move(body));
  KernelHandle thread(
      CreateThread(nullptr, stackReserve, RunBody<Body>, owned.get(), STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
  if (thread) {
    static_cast<void>(owned.release());
  }
  return thread;
}

// Runs `body`, which must not throw and may wait for long, on a thread of Windows' pool. The pool keeps its threads for
// a while, so that whoever comes often does not pay for a new one. It has 512 at most for the whole process, libraries
// included ("QueueUserWorkItem function"), and what comes then waits without a word: do not take them in any number.
// Nobody can wait for the end. False when Windows refuses; the last error says why.
template <typename Body>
bool RunOnPool(Body body) {
  auto owned = std::make_unique<Body>(std::move(body));
  if (QueueUserWorkItem(RunBody<Body>, owned.get(), WT_EXECUTELONGFUNCTION) == 0) {
    return false;
  }
  static_cast<void>(owned.release());
  return true;
}

}  // namespace kiosk::win32
