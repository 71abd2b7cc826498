// kiosk_proof: asks the Windows that it runs on what the tests promise of it, and plays a terminal's life on it.
// Without --run, --contract or --undo it changes nothing and says what it would do.
#include "tools/proof/agent.h"
#include "tools/proof/computer.h"
#include "tools/proof/groups.h"
#include "tools/proof/journal.h"
#include "tools/proof/life.h"
#include "tools/proof/product.h"
#include "tools/proof/run.h"
#include "win32/computer_name.h"
#include "win32/console.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace proof {
namespace {

using contract::Verdict;
using kiosk::win32::Print;
using kiosk::win32::PrintError;
using kiosk::win32::ToNarrow;

enum ExitCode : int { kNothingBroken = 0, kBroken = 1, kRefused = 2 };

struct Options {
  enum class Do { kList, kRun, kContract, kUndo, kGroup, kAgent, kAsk } what = Do::kList;
  std::wstring argument;  // a group, a request
  std::wstring report, computer, only;
  RunOptions run;
};

int Refuse(const std::string& why) {
  PrintError("kiosk_proof: " + why + "\n");
  return kRefused;
}

// Empty, or what is wrong with the command line.
std::string Read(const std::vector<std::wstring>& words, Options& options) {
  using Do = Options::Do;
  constexpr struct {
    const wchar_t* name;
    Do what;  // kList: says nothing about that
    bool RunOptions::*flag;
    std::wstring Options::*text;
  } kWords[] = {
      {L"--run", Do::kRun, nullptr, nullptr},
      {L"--contract", Do::kContract, nullptr, nullptr},
      {L"--undo", Do::kUndo, nullptr, nullptr},
      {L"--restarts", Do::kList, &RunOptions::restarts, nullptr},
      {L"--quick", Do::kList, &RunOptions::quick, nullptr},
      {L"--only", Do::kList, nullptr, &Options::only},
      {L"--report", Do::kList, nullptr, &Options::report},
      {L"--computer", Do::kList, nullptr, &Options::computer},
      // By itself, of itself.
      {L"--agent", Do::kAgent, nullptr, nullptr},
      {L"--group", Do::kGroup, nullptr, &Options::argument},
      {L"--ask", Do::kAsk, nullptr, &Options::argument},
  };
  for (auto word = words.begin(); word != words.end(); ++word) {
    const auto* const found =
        std::find_if(std::begin(kWords), std::end(kWords), [&](const auto& each) { return *word == each.name; });
    if (found == std::end(kWords)) {
      if (options.what != Do::kContract || word->starts_with(L"--")) {
        return "unknown option " + ToNarrow(*word);
      }
      options.only = L"contract/" + *word;  // a group
      continue;
    }
    options.what = found->what != Do::kList ? found->what : options.what;
    if (found->flag != nullptr) {
      options.run.*found->flag = true;
    }
    if (found->text != nullptr) {
      if (std::next(word) == words.end()) {
        return "something is missing after " + ToNarrow(*word);
      }
      options.*found->text = *++word;
    }
  }
  options.run.only = ToNarrow(options.only);
  return {};
}

constexpr char kWhatItDoes[] =
    R"(Nothing was changed. With --run this computer is asked for what follows, as an administrator and as LocalSystem;
--only BEGINNING for a part, --restarts lets Windows restart, --quick leaves out what takes a minute, --report
FOLDER says where the report goes. --undo puts everything back after a run that was cut short.

What a contract case makes (users, services, files, keys, a proxy) bears the name NorvaneProof or is put back at
its end. The life installs the NorvaneKiosk.exe beside the kit, pairs it with a portal inside the kit, which makes
a local user NorvaneKiosk and sets automatic sign-in, power, updates and two tasks, trusts the authority that signed
the copies beside the kit, and takes all of it away again.

)";

int List() {
  Print(kWhatItDoes);
  for (const contract::Group* group : contract::Groups()) {
    for (const contract::Case& each : group->cases) {
      Print("contract/" + std::string(group->name) + "/" + each.name + ": " + each.promise + "\n");
    }
  }
  for (const Step& step : Steps()) {
    Print(std::string(step.what.name) + ": " + step.what.promise +
          (step.kind == Step::kRestarts ? " (with --restarts)" : "") + "\n");
  }
  return kNothingBroken;
}

std::wstring ReportFolder(const Options& options) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t name[64];
  static_cast<void>(std::swprintf(name, 64, L"proof-report-%04u%02u%02u-%02u%02u%02u", now.wYear, now.wMonth, now.wDay,
                                  now.wHour, now.wMinute, now.wSecond));
  wchar_t full[MAX_PATH * 4];
  const DWORD length =
      GetFullPathNameW(options.report.empty() ? name : options.report.c_str(), MAX_PATH * 4, full, nullptr);
  return {full, length < MAX_PATH * 4 ? length : 0};
}

int ExitCodeOf(const Report& report) { return report.Count(Verdict::kBroken) == 0 ? kNothingBroken : kBroken; }

// Here and now, as whoever runs this: for the developer of a case.
int AskContract(const Options& options) {
  Print(std::string("asked of: ") + contract::Name(contract::ThisPlatform()) + "\n");
  if (const std::string why = TheRun().Begin(options.report.empty() ? L"" : ReportFolder(options), options.run);
      !why.empty()) {
    return Refuse(why);
  }
  TheRun().AskCases("administrator");
  TheRun().TheReport().Set("done", true);
  return ExitCodeOf(TheRun().TheReport());
}

std::string WhyNotNow(const Options& options) {
  switch (LookAtJournal()) {
    case JournalState::kThere:
      return WhyCutShort();
    case JournalState::kDamaged:
      return "the journal of a run that was cut short here is damaged: " + ToNarrow(kWorkFolder);
    case JournalState::kNone:
      break;
  }
  if (!options.computer.empty() && !kiosk::win32::EqualIgnoringCase(options.computer, kiosk::win32::ComputerName())) {
    return "this computer is not called " + ToNarrow(options.computer);
  }
  return WhyNotHere(!options.computer.empty(), ProductProgram());
}

// Until the agent has done its part. A restart of Windows ends this process before.
int Follow(HANDLE agent, const std::wstring& folder) {
  constexpr DWORD kLook = 500;  // ms
  Report& report = TheRun().TheReport();
  while (WaitForSingleObject(agent, kLook) == WAIT_TIMEOUT) {
    report.GoOn();
    report.PrintNew();
  }
  if (!report.GoOn() || !report.IsDone()) {
    return Refuse(LookAtJournal() != JournalState::kNone ? WhyCutShort()
                                                         : "the report is damaged: " + ToNarrow(folder));
  }
  report.PrintNew();
  Print(report.Summary() + "; the report is in " + ToNarrow(folder) + "\n");
  return ExitCodeOf(report);
}

int RunAll(const Options& options) {
  if (const std::string why = WhyNotNow(options); !why.empty()) {
    return Refuse(why);
  }
  const std::wstring folder = ReportFolder(options);
  if (const std::string why = BeginJournal(); !why.empty()) {
    return Refuse(why);
  }
  // Nothing but the journal and the report was made so far.
  const auto refuse = [](const std::string& why) {
    static_cast<void>(UndoAll());
    return Refuse(why);
  };
  if (const std::string why = TheRun().Begin(folder, options.run); !why.empty()) {
    return refuse(why);
  }
  constexpr wchar_t kConnections[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
  if (!NoteContractCases() || !NoteValue(kConnections, L"WinHttpSettings") || !TheRun().SetNote("step", 0)) {
    return refuse("the journal cannot be written (" + std::to_string(GetLastError()) + ")");
  }
  TheRun().AskCases("administrator");
  const DWORD agent = StartAgent();
  const kiosk::win32::KernelHandle process(agent != 0 ? OpenProcess(SYNCHRONIZE, FALSE, agent) : nullptr);
  if (!process) {
    return refuse("the agent cannot be started (" + std::to_string(GetLastError()) + ")");
  }
  if (options.run.restarts) {
    Print("Windows restarts, and this ends with it. Leave the computer alone, and sign in only once report.txt in " +
          ToNarrow(folder) + " ends with the numbers of what is held and broken.\n");
  }
  return Follow(process.Get(), folder);
}

int Undo() {
  if (LookAtJournal() == JournalState::kNone) {
    Print("There is nothing to undo.\n");
    return kNothingBroken;
  }
  if (LookAtJournal() == JournalState::kDamaged) {
    return Refuse("the journal is damaged: " + ToNarrow(kWorkFolder));
  }
  const std::string left = UndoAll();
  Print(left.empty() ? "Everything is as before.\n" : left + "; restart the computer and repeat this\n");
  return left.empty() ? kNothingBroken : kBroken;
}

// In the session of the user who is to ask: the exit code is the answer.
int Ask(const std::string& request) {
  const kioskctl::Answer answer = kioskctl::Ask(kiosk::text::Secret(request), kioskctl::kPairWait);
  return answer.outcome == kioskctl::Outcome::kReply && kiosk::json::Member(answer.reply, "ok").boolean() ? 0 : 1;
}

int Main(const std::vector<std::wstring>& words) {
  // No box for a person to close where nobody is.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  Options options;
  if (const std::string problem = Read(words, options); !problem.empty()) {
    return Refuse(problem);
  }
  switch (options.what) {
    case Options::Do::kList:
      return List();
    case Options::Do::kRun:
      return RunAll(options);
    case Options::Do::kContract:
      return AskContract(options);
    case Options::Do::kUndo:
      return Undo();
    case Options::Do::kGroup:
      if (!AskGroup(ToNarrow(options.argument))) {
        return Refuse("there is no such group");
      }
      ExitProcess(kNothingBroken);  // with whatever threads a case has left behind
    case Options::Do::kAgent:
      return ServeAsAgent() ? kNothingBroken : Refuse("only the service manager starts the agent");
    case Options::Do::kAsk:
      return Ask(ToNarrow(options.argument));
  }
  return kRefused;
}

}  // namespace
}  // namespace proof

int wmain(int count, wchar_t** arguments) { return proof::Main({arguments + 1, arguments + count}); }
