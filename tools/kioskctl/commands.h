#pragma once

#include <string>
#include <vector>

namespace kioskctl {

// What the program ends with.
enum ExitCode : int { kDone = 0, kServiceError = 1, kUsage = 2, kNoService = 3 };

struct Options {
  bool json = false;  // replies as they came, a line each, for scripts
};

int Status(const Options& options);
int Pair(const Options& options);
int Restart(const Options& options);
#ifdef NORVANE_DEVELOPMENT_COMMANDS
int Send(const Options& options, const std::string& request);
int Unlock(const Options& options, const std::string& password);
int Maintenance(const Options& options, const std::string& password, const std::string& unlockToken);
int TimeSync(const Options& options, const std::string& unlockToken);
// The words as on the command line, the command's name first.
int NetSet(const Options& options, const std::vector<std::string>& words);
int ProxySet(const Options& options, const std::vector<std::string>& words);
#endif

// The sentence for an error code of the service; the code itself when there is no better one.
std::string Explain(const std::string& code);

}  // namespace kioskctl
