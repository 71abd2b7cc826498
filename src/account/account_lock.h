// What keeps two that change the kiosk account, its sign-in or its lockdown from meeting: one lock among the threads of
// a process, one named mutex among processes (an uninstall runs beside the service until that has stopped).
#pragma once

#include "win32/handle.h"
#include "win32/lock.h"

namespace kiosk::account {

// Held for the whole of a provisioning, a re-application of policies, a teardown, the entry into maintenance and the
// storing of a device token. Not recursive.
win32::Lock& AccountLock() noexcept;

// Surrounds teardown and provisioning; taken by a thread that holds the account lock already, never before it. Waits up
// to 20 s, and not beyond a stop, for another process to finish. A mutex that cannot be had in that time (or at all:
// another program may sit on its name) is logged and then does without: nobody may keep a revoked terminal in kiosk
// mode that way.
class CrossProcessGuard {
 public:
  CrossProcessGuard() noexcept;
  CrossProcessGuard(const CrossProcessGuard&) = delete;
  CrossProcessGuard& operator=(const CrossProcessGuard&) = delete;
  ~CrossProcessGuard();

  // False only when the service is to stop before the other process was done: the caller then changes nothing.
  [[nodiscard]] bool MayGoOn() const noexcept { return mayGoOn_; }

 private:
  win32::KernelHandle mutex_;
  bool held_ = false;
  bool mayGoOn_ = true;
};

}  // namespace kiosk::account
