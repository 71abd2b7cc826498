#pragma once

namespace kiosk::service {

// From here on a fault that nobody handles (an access violation, a stack overflow, an exception that left a noexcept
// function, abort) leaves a line in the local log, a small dump "NorvaneKiosk-<date>-<time>-<process id>.dmp" in the
// log folder with a line about it, the first line for the central log, and an entry in Windows' event log, before the
// process ends; the service manager then starts it anew. Within a local day at most 8 dumps are written, each under its
// name only when it is whole. The work is done by a thread that waits for it from the start; it has 10 s, so that a
// fault while a lock is held ends the process all the same. Every thread of a program that has this function keeps 48
// KB of its stack for a fault, unless the stack is smaller than kSmallStack. A dump holds parts of the process's
// memory: it is as secret as the log folder.
void InstallCrashHandler() noexcept;

}  // namespace kiosk::service
