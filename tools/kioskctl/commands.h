// The commands, one function each; all return the exit code. `words` are those of the command line, the command's name
// first; their number was checked.
#pragma once

#include "exchange.h"

#include <string>
#include <vector>

namespace kioskctl {

using Words = std::vector<std::string>;

int Status(const Options& options, const Words& words);
int Pair(const Options& options, const Words& words);
int Restart(const Options& options, const Words& words);

// Looks at all that can be wrong with a terminal, a line each with what to do about it. kServiceError when something
// is. Works without the service.
int Check(const Options& options, const Words& words);

// Writes a folder "NorvaneKiosk-support-<date>-<time>" into the one that is named (none: the current folder): what is
// needed to find out why a terminal misbehaves, with no token and no password in it. Works without the service.
int SupportBundle(const Options& options, const Words& words);

#ifdef NORVANE_DEVELOPMENT_COMMANDS
int Send(const Options& options, const Words& words);
// Serves the pipe with the replies of a script (examples/shell/README.md) until it is stopped. Returns kUsage when the
// script is wrong, kNoService when the pipe is taken.
int Serve(const Options& options, const Words& words);
int Unlock(const Options& options, const Words& words);
int Maintenance(const Options& options, const Words& words);
int Power(const Options& options, const Words& words);
int Updates(const Options& options, const Words& words);
int InstallUpdates(const Options& options, const Words& words);
int TimeSync(const Options& options, const Words& words);
int NetSet(const Options& options, const Words& words);
int ProxySet(const Options& options, const Words& words);

// A request of the terminal settings.
kiosk::json::Value UnlockedRequest(const char* command, const std::string& unlockToken);
// " Sun Mon Fri" for the numbers of days, 0 being Sunday.
std::string DayNames(const kiosk::json::Value& days);
#endif

}  // namespace kioskctl
