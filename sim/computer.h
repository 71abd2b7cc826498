// The simulated computer as a whole: its restart, what it is like, and commands for it as text.
#pragma once

#include "win32/winapi.h"

#include <string>
#include <vector>

namespace sim {

// All sessions end, the tick count begins at 0, and Winlogon signs in whom its values and the secret "DefaultPassword"
// name, when that account exists, is enabled and has this password. Returns the session; 0: nobody is signed in. The
// service's process is the test's to end before, and to start after.
DWORD RestartComputer();

// Accounts, groups, secrets, profiles, hives, power schemes, scheduled tasks, default proxy, network adapters and the
// keys (below HKLM, with all that is below them) as text, a line for each thing, sorted: equal for equal computers.
// Leaves out what the service may keep, its state and its logs, and when somebody signed in last.
std::string DumpMachine();
std::string DumpMachine(const std::vector<std::wstring>& keys);

// "signin NAME [SESSION]", "signout SESSION", "restart", "user NAME [PASSWORD]", "caller NAME [SESSION]" (whom the pipe
// takes its clients for), "due DAY HH:MM" (runs the scheduled tasks of that time; day 0 is Sunday), "update TITLE" (one
// more is offered), "agent MILLISECONDS STAGE" (how long "search", "download" or "install" takes). Returns what the
// function returns, or 0.
DWORD RunMachineCommand(const std::wstring& command);

}  // namespace sim
