// kioskctl: talks to the kiosk service on this computer, for people and for scripts.
#include "commands.h"
#include "log/log.h"
#include "win32/console.h"
#include "win32/wide_text.h"
#include "win32/winapi.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace kioskctl {
#ifdef NORVANE_DEVELOPMENT_COMMANDS
extern const char kProgram[] = "kioskctl-dev";
#else
extern const char kProgram[] = "kioskctl";
#endif
}  // namespace kioskctl

namespace {

using kiosk::win32::Print;

constexpr char kHelp[] =
    " - talks to the Norvane kiosk service on this computer\n"
    "\n"
    "  status            where this terminal stands and what to do next\n"
    "  pair              show a pairing code and wait until it is entered in the portal\n"
    "  restart           restart into kiosk mode now instead of 10 seconds after pairing\n"
    "\n"
    "As an administrator, and without the service too:\n"
    "  check             what is wrong with this terminal and what to do about it, a line for each thing\n"
    "  log [--follow]    the lines of the service's log from the last day on which it wrote; with --follow also\n"
    "                    each new one, until Ctrl+C\n"
    "  support-bundle [FOLDER]\n"
    "                    write what support needs into a new zip file in FOLDER (or the current folder)\n"
    "  removed           whether an uninstall has left nothing behind: 0 when the service and the kiosk account\n"
    "                    are gone, otherwise 1 and a sentence\n"
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    "\n"
    "From the kiosk account's own session:\n"
    "  unlock PASSWORD   open the terminal settings\n"
    "  maintenance PASSWORD [UNLOCK-TOKEN]\n"
    "                    leave the kiosk for a while\n"
    "  power UNLOCK-TOKEN\n"
    "                    when the display goes off and the computer sleeps, and who decided that\n"
    "  power UNLOCK-TOKEN SCREEN-OFF SLEEP [SCHEDULE]\n"
    "                    decide it here: minutes of idleness (0: never), and as JSON, in place of the schedule\n"
    "                    in force, {\"enabled\":true,\"sleepAt\":\"22:00\",\"wakeAt\":\"07:00\",\"days\":[1,2,3,4,5]}\n"
    "                    (0 is Sunday)\n"
    "  power UNLOCK-TOKEN portal\n"
    "                    let the portal decide again\n"
    "  updates UNLOCK-TOKEN [check]\n"
    "                    the updates of Windows that are missing; with \"check\" after a new search. Follows a\n"
    "                    search or an installation that is going, until it ends\n"
    "  install-updates UNLOCK-TOKEN\n"
    "                    search, download and install now, and follow it\n"
    "  time-sync UNLOCK-TOKEN\n"
    "                    set the clock by the computer's time server\n"
    "  [--keep] net-set UNLOCK-TOKEN ADAPTER dhcp [DNS ...]\n"
    "  [--keep] net-set UNLOCK-TOKEN ADAPTER ADDRESS/BITS GATEWAY|- [DNS ...]\n"
    "                    set a network adapter, named by its GUID in braces. What was set before comes back\n"
    "                    unless the portal answers within 5 minutes; with --keep it does not\n"
    "  proxy-set UNLOCK-TOKEN none | auto URL | manual SERVER:PORT [BYPASS]\n"
    "                    set the default proxy of Windows' services\n"
    "\n"
    "  send JSON | - | @FILE\n"
    "                    send one request as it is, which may come from standard input or a file, and print the\n"
    "                    reply; PowerShell wants '@FILE' in quotes\n"
    "  serve SCRIPT [COMMAND=CODE ...]\n"
    "                    answer the pipe as a script says, in place of the service; such commands with an error\n"
    "                    code\n"
#endif
    "\n"
    "  --json            for scripts: the service's replies as JSON, a line each, of those that follow something\n"
    "                    each new one; what \"check\" and \"support-bundle\" have to say likewise. ASCII alone\n"
    "  --help | --version\n"
    "\n"
    "Exit codes: 0 done, 1 the service answered with an error, what it began failed, a file could not be read or\n"
    "written, or \"check\" or \"removed\" found something, 2 wrong usage, 3 no service to talk to.\n";

using kioskctl::Options;
using kioskctl::Words;

struct Command {
  std::string_view name;
  std::size_t fewest, most;  // arguments
  const char* arguments;     // for a complaint about them
  int (*run)(const Options& options, const Words& words);
  std::string_view options = "--json";  // that it takes
};

constexpr Command kCommands[] = {
    {"status", 0, 0, "no arguments", kioskctl::Status},
    {"pair", 0, 0, "no arguments", kioskctl::Pair},
    {"restart", 0, 0, "no arguments", kioskctl::Restart},
    {"check", 0, 0, "no arguments", kioskctl::Check},
    {"log", 0, 0, "no arguments", kioskctl::ShowLog, "--follow"},
    {"removed", 0, 0, "no arguments", kioskctl::Removed, ""},
    {"support-bundle", 0, 1, "at most one folder", kioskctl::SupportBundle},
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    {"send", 1, 1, "one JSON text, \"-\" or \"@FILE\"", kioskctl::Send},
    {"serve", 1, 16, "a script, and COMMAND=CODE for what is to fail", kioskctl::Serve, ""},
    {"unlock", 1, 1, "one password", kioskctl::Unlock},
    {"maintenance", 1, 2, "a password and at most one unlock token", kioskctl::Maintenance},
    {"power", 1, 4, "an unlock token, and \"portal\" or two numbers and at most one schedule", kioskctl::Power},
    {"updates", 1, 2, "an unlock token, and at most \"check\"", kioskctl::Updates},
    {"install-updates", 1, 1, "an unlock token", kioskctl::InstallUpdates},
    {"time-sync", 1, 1, "an unlock token", kioskctl::TimeSync},
    {"net-set", 3, 8, "an unlock token, an adapter and its settings", kioskctl::NetSet, "--json --keep"},
    {"proxy-set", 2, 4, "an unlock token, a mode and what it needs", kioskctl::ProxySet},
#endif
};

int Run(const Words& words, const Options& options) {
  if (words.empty()) {
    return kioskctl::WrongUsage("no command given");
  }
  const auto* command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&words](const Command& each) { return each.name == words.front(); });
  if (command == std::end(kCommands)) {
    return kioskctl::WrongUsage("unknown command \"" + words.front() + "\"");
  }
  if (words.size() - 1 < command->fewest || words.size() - 1 > command->most) {
    return kioskctl::WrongUsage("\"" + words.front() + "\" takes " + command->arguments);
  }
  const std::pair<std::string_view, bool> all[] = {
      {"--json", options.json}, {"--keep", options.keep}, {"--follow", options.follow}};
  for (const auto& [name, given] : all) {
    if (given && command->options.find(name) == std::string_view::npos) {
      return kioskctl::WrongUsage("\"" + words.front() + "\" does not take " + std::string(name));
    }
  }
  return command->run(options, words);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  Options options;
  Words words;
  for (int i = 1; i < count; ++i) {
    const std::string word = kiosk::win32::ToNarrow(arguments[i]);
    if (word == "--help" || word == "-h") {
      Print(std::string(kioskctl::kProgram) + kHelp);
      return kioskctl::kDone;
    }
    if (word == "--version") {
      Print(std::string(kioskctl::kProgram) + " " + kiosk::log::kVersion + "\n");
      return kioskctl::kDone;
    }
    if (word == "--json") {
      options.json = true;
    } else if (word == "--keep") {
      options.keep = true;
    } else if (word == "--follow") {
      options.follow = true;
    } else if (word.starts_with("--")) {
      return kioskctl::WrongUsage("unknown option \"" + word + "\"");
    } else {
      words.push_back(word);
    }
  }
  return Run(words, options);
}
