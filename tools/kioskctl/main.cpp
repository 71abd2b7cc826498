// kioskctl: talks to the kiosk service on this computer, for people and for scripts.
#include "commands.h"
#include "log/log.h"
#include "support_bundle.h"
#include "win32/console.h"
#include "win32/wide_text.h"
#include "win32/winapi.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr char kHelp[] =
    "kioskctl - talks to the Norvane kiosk service on this computer\n"
    "\n"
    "  kioskctl [--json] status    where this terminal stands and what to do next\n"
    "  kioskctl [--json] pair      show a pairing code and wait until it is entered in the portal\n"
    "  kioskctl [--json] restart   restart into kiosk mode now instead of 10 seconds after pairing\n"
    "  kioskctl support-bundle [FOLDER]\n"
    "                              write what support needs into a new folder below FOLDER (or the current folder);\n"
    "                              run it as an administrator; it works without the service too\n"
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    "\n"
    "  kioskctl [--json] unlock PASSWORD\n"
    "                              open the terminal settings (from the kiosk account's own session)\n"
    "  kioskctl [--json] maintenance PASSWORD [UNLOCK-TOKEN]\n"
    "                              leave the kiosk for a while (from the kiosk account's own session)\n"
    "  kioskctl [--json] time-sync UNLOCK-TOKEN\n"
    "                              set the clock by the computer's time server\n"
    "  kioskctl [--json] net-set UNLOCK-TOKEN ADAPTER dhcp [DNS ...]\n"
    "  kioskctl [--json] net-set UNLOCK-TOKEN ADAPTER ADDRESS/BITS GATEWAY|- [DNS ...]\n"
    "                              set a network adapter, named by its GUID in braces\n"
    "  kioskctl [--json] proxy-set UNLOCK-TOKEN none | auto URL | manual SERVER:PORT [BYPASS]\n"
    "                              set the default proxy of Windows' services\n"
    "  kioskctl send JSON          send one request as it is and print the reply\n"
#endif
    "  kioskctl --help | --version\n"
    "\n"
    "  --json   print the service's replies as they are, one line each\n"
    "\n"
    "Exit codes: 0 done, 1 the service answered with an error or a file could not be written, 2 wrong usage, 3 no service\n"
    "to talk to.\n";

int Usage(const std::string& problem) {
  PrintError("kioskctl: " + problem + "\nSee \"kioskctl --help\".\n");
  return kioskctl::kUsage;
}

struct Command {
  std::string_view name;
  std::size_t fewest, most;  // arguments
  const char* arguments;     // for a complaint about them
  int (*run)(const kioskctl::Options& options, const std::vector<std::string>& words);
};

using Words = std::vector<std::string>;
using kioskctl::Options;

constexpr Command kCommands[] = {
    {"status", 0, 0, "no arguments", [](const Options& options, const Words&) { return kioskctl::Status(options); }},
    {"pair", 0, 0, "no arguments", [](const Options& options, const Words&) { return kioskctl::Pair(options); }},
    {"restart", 0, 0, "no arguments", [](const Options& options, const Words&) { return kioskctl::Restart(options); }},
    {"support-bundle", 0, 1, "at most one folder",
     [](const Options&, const Words& words) {
       return kioskctl::SupportBundle(words.size() > 1 ? words[1] : std::string());
     }},
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    {"send", 1, 1, "one JSON text",
     [](const Options& options, const Words& words) { return kioskctl::Send(options, words[1]); }},
    {"unlock", 1, 1, "one password",
     [](const Options& options, const Words& words) { return kioskctl::Unlock(options, words[1]); }},
    {"maintenance", 1, 2, "a password and at most one unlock token",
     [](const Options& options, const Words& words) {
       return kioskctl::Maintenance(options, words[1], words.size() > 2 ? words[2] : std::string());
     }},
    {"time-sync", 1, 1, "an unlock token",
     [](const Options& options, const Words& words) { return kioskctl::TimeSync(options, words[1]); }},
    {"net-set", 3, 8, "an unlock token, an adapter and its settings", kioskctl::NetSet},
    {"proxy-set", 2, 4, "an unlock token, a mode and what it needs", kioskctl::ProxySet},
#endif
};

int Run(const Words& words, const Options& options) {
  if (words.empty()) {
    return Usage("no command given");
  }
  const auto* command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&words](const Command& each) { return each.name == words.front(); });
  if (command == std::end(kCommands)) {
    return Usage("unknown command \"" + words.front() + "\"");
  }
  if (words.size() - 1 < command->fewest || words.size() - 1 > command->most) {
    return Usage("\"" + words.front() + "\" takes " + command->arguments);
  }
  return command->run(options, words);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  kioskctl::Options options;
  std::vector<std::string> words;
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
    } else if (word.starts_with("--")) {
      return Usage("unknown option \"" + word + "\"");
    } else {
      words.push_back(word);
    }
  }
  return Run(words, options);
}
