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

// Says whether an uninstall has removed everything, for whoever ran it and is about to delete the program: 0 when the
// service and the kiosk account are gone for certain, otherwise kServiceError. Works without the service.
int Removed(const Options& options, const Words& words);
// The sentence about the first thing that is still there, or of which nobody knows; empty when all is gone.
std::string WhatIsLeft(const ServiceState& service);

// Shows the service's log lines of the last day on which it wrote; with options.follow each new one too, until nobody
// reads them any more. Works without the service.
int ShowLog(const Options& options, const Words& words);

// Writes "NorvaneKiosk-support-<date>-<time>.zip" into the folder that is named (none: the current one): what is needed
// to find out why a terminal misbehaves, with no token, no password and no user's name in it. Works without the
// service.
int SupportBundle(const Options& options, const Words& words);

// Of the development build alone.
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

}  // namespace kioskctl
