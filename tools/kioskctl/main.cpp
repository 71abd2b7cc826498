// kioskctl: talks to the kiosk service on this computer, for people and for scripts.
#include "commands.h"
#include "log/log.h"
#include "win32/console.h"
#include "win32/wide_text.h"
#include "win32/winapi.h"

namespace {

using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr char kHelp[] =
    "kioskctl - talks to the Norvane kiosk service on this computer\n"
    "\n"
    "  kioskctl [--json] status    where this terminal stands and what to do next\n"
    "  kioskctl [--json] pair      show a pairing code and wait until it is entered in the portal\n"
#ifdef NORVANE_DEVELOPMENT_COMMANDS
    "  kioskctl send JSON          send one request as it is and print the reply\n"
#endif
    "  kioskctl --help | --version\n"
    "\n"
    "  --json   print the service's replies as they are, one line each\n"
    "\n"
    "Exit codes: 0 done, 1 the service answered with an error, 2 wrong usage, 3 no service to talk to.\n";

int Usage(const std::string& problem) {
  PrintError("kioskctl: " + problem + "\nSee \"kioskctl --help\".\n");
  return kioskctl::kUsage;
}

int Run(const std::vector<std::string>& words, const kioskctl::Options& options) {
  if (words.empty()) {
    return Usage("no command given");
  }
  const std::string& command = words.front();
#ifdef NORVANE_DEVELOPMENT_COMMANDS
  if (command == "send") {
    return words.size() == 2 ? kioskctl::Send(options, words[1]) : Usage("\"send\" takes one JSON text");
  }
#endif
  const bool known = command == "status" || command == "pair";
  if (!known) {
    return Usage("unknown command \"" + command + "\"");
  }
  if (words.size() > 1) {
    return Usage("\"" + command + "\" takes no arguments");
  }
  return command == "status" ? kioskctl::Status(options) : kioskctl::Pair(options);
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
