// kioskctl: talks to the kiosk service on this computer, for people and for scripts.
#include "commands.h"
#include "log/log.h"
#include "win32/console.h"
#include "win32/wide_text.h"
#include "win32/winapi.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

using kiosk::win32::Print;

constexpr char kHelp[] =
    "kioskctl - talks to the Norvane kiosk service on this computer\n"
    "\n"
    "  kioskctl [--json] status    where this terminal stands and what to do next\n"
    "  kioskctl [--json] pair      show a pairing code and wait until it is entered in the portal\n"
    "  kioskctl [--json] restart   restart into kiosk mode now instead of 10 seconds after pairing\n"
    "  kioskctl [--json] check     what is wrong with this terminal and what to do about it, a line for each thing; "
    "run\n"
    "                              it as an administrator; it works without the service too\n"
    "  kioskctl support-bundle [FOLDER]\n"
    "                              write what support needs into a new folder below FOLDER (or the current folder);\n"
    "                              run it as an administrator; it works without the service too\n"
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    "\n"
    "  kioskctl [--json] unlock PASSWORD\n"
    "                              open the terminal settings (from the kiosk account's own session)\n"
    "  kioskctl [--json] maintenance PASSWORD [UNLOCK-TOKEN]\n"
    "                              leave the kiosk for a while (from the kiosk account's own session)\n"
    "  kioskctl [--json] power UNLOCK-TOKEN\n"
    "                              when the display goes off and the computer sleeps, and who decided that\n"
    "  kioskctl [--json] power UNLOCK-TOKEN SCREEN-OFF SLEEP [SCHEDULE]\n"
    "                              decide it here: minutes of idleness (0: never), and as JSON, in place of the\n"
    "                              schedule in force, {\"enabled\":true,\"sleepAt\":\"22:00\",\"wakeAt\":\"07:00\",\n"
    "                              \"days\":[1,2,3,4,5]} (0 is Sunday)\n"
    "  kioskctl [--json] power UNLOCK-TOKEN portal\n"
    "                              let the portal decide again\n"
    "  kioskctl [--json] updates UNLOCK-TOKEN [check]\n"
    "                              the updates of Windows that are missing; with \"check\" after a new search. "
    "Follows\n"
    "                              a search or an installation that is going, until it ends\n"
    "  kioskctl [--json] install-updates UNLOCK-TOKEN\n"
    "                              search, download and install now, and follow it\n"
    "  kioskctl [--json] time-sync UNLOCK-TOKEN\n"
    "                              set the clock by the computer's time server\n"
    "  kioskctl [--json] [--keep] net-set UNLOCK-TOKEN ADAPTER dhcp [DNS ...]\n"
    "  kioskctl [--json] [--keep] net-set UNLOCK-TOKEN ADAPTER ADDRESS/BITS GATEWAY|- [DNS ...]\n"
    "                              set a network adapter, named by its GUID in braces. What was set before comes\n"
    "                              back unless the portal answers within 5 minutes; with --keep it does not\n"
    "  kioskctl [--json] proxy-set UNLOCK-TOKEN none | auto URL | manual SERVER:PORT [BYPASS]\n"
    "                              set the default proxy of Windows' services\n"
    "  kioskctl send JSON          send one request as it is and print the reply\n"
    "  kioskctl serve SCRIPT [COMMAND=CODE ...]\n"
    "                              answer the pipe as a script says, in place of the service; such commands with an\n"
    "                              error code\n"
#endif
    "  kioskctl --help | --version\n"
    "\n"
    "  --json   print the service's replies as they are, one line each; of those that follow something, each new one\n"
    "\n"
    "Exit codes: 0 done, 1 the service answered with an error, what it began failed, or a file could not be written,\n"
    "2 wrong usage, 3 no service to talk to.\n";

using kioskctl::Options;
using kioskctl::Words;

struct Command {
  std::string_view name;
  std::size_t fewest, most;  // arguments
  const char* arguments;     // for a complaint about them
  int (*run)(const Options& options, const Words& words);
};

constexpr Command kCommands[] = {
    {"status", 0, 0, "no arguments", kioskctl::Status},
    {"pair", 0, 0, "no arguments", kioskctl::Pair},
    {"restart", 0, 0, "no arguments", kioskctl::Restart},
    {"check", 0, 0, "no arguments", kioskctl::Check},
    {"support-bundle", 0, 1, "at most one folder", kioskctl::SupportBundle},
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    {"send", 1, 1, "one JSON text", kioskctl::Send},
    {"serve", 1, 16, "a script, and COMMAND=CODE for what is to fail", kioskctl::Serve},
    {"unlock", 1, 1, "one password", kioskctl::Unlock},
    {"maintenance", 1, 2, "a password and at most one unlock token", kioskctl::Maintenance},
    {"power", 1, 4, "an unlock token, and \"portal\" or two numbers and at most one schedule", kioskctl::Power},
    {"updates", 1, 2, "an unlock token, and at most \"check\"", kioskctl::Updates},
    {"install-updates", 1, 1, "an unlock token", kioskctl::InstallUpdates},
    {"time-sync", 1, 1, "an unlock token", kioskctl::TimeSync},
    {"net-set", 3, 8, "an unlock token, an adapter and its settings", kioskctl::NetSet},
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
  if (options.keep && command->name != "net-set") {
    return kioskctl::WrongUsage("\"" + words.front() + "\" does not take --keep");
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
      Print(kHelp);
      return kioskctl::kDone;
    }
    if (word == "--version") {
      Print(std::string("kioskctl ") + kiosk::log::kVersion + "\n");
      return kioskctl::kDone;
    }
    if (word == "--json") {
      options.json = true;
    } else if (word == "--keep") {
      options.keep = true;
    } else if (word.starts_with("--")) {
      return kioskctl::WrongUsage("unknown option \"" + word + "\"");
    } else {
      words.push_back(word);
    }
  }
  return Run(words, options);
}
