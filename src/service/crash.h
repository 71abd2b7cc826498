#pragma once

namespace kiosk::service {

// From here on a fault that nobody handles (an access violation, a stack overflow, an exception that left a noexcept
// function, abort) leaves one line in the log and a small dump "NorvaneKiosk-<date>-<time>-<process id>.dmp" in the log
// folder before the process ends; the service manager then starts it anew. Within a local day at most 8 dumps are written.
// The work is done by a thread that waits for it from the start, because the faulting one may have no stack left; it has
// 10 s, so that a fault while a lock is held ends the process all the same. A dump holds parts of the process's memory:
// it is as secret as the log folder it lies in.
void InstallCrashHandler() noexcept;

}  // namespace kiosk::service
