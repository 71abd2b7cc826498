// kiosk_proof: asks the Windows that it runs on what the tests promise of it, and plays a terminal's life on it.
// Without
// --run, --contract or --undo it changes nothing and says what it would do.
#include "tools/kioskctl/pipe_client.h"
#include "tools/proof/agent.h"
#include "tools/proof/agent_service.h"
#include "tools/proof/computer.h"
#include "tools/proof/files.h"
#include "tools/proof/groups.h"
#include "tools/proof/journal.h"
#include "tools/proof/product.h"
#include "tools/proof/run.h"
#include "tools/proof/snapshot.h"
#include "tools/proof/steps.h"
#include "win32/computer_name.h"
#include "win32/console.h"
#include "win32/wide_text.h"

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
  std::string argument;  // a group, a request
  std::wstring report;
  std::wstring computer;
  RunOptions run;
};

int Refuse(const std::string& why) {
  PrintError("kiosk_proof: " + why + "\n");
  return kRefused;
}

// Empty, or what is wrong with the command line.
std::string Read(const std::vector<std::wstring>& words, Options& options) {
  struct Word {
    const wchar_t* name;
    bool wantsMore;
    void (*take)(Options& options, const std::wstring& more);
  };
  constexpr Word kWords[] = {
      {L"--run", false, [](Options& o, const std::wstring&) { o.what = Options::Do::kRun; }},
      {L"--contract", false, [](Options& o, const std::wstring&) { o.what = Options::Do::kContract; }},
      {L"--undo", false, [](Options& o, const std::wstring&) { o.what = Options::Do::kUndo; }},
      {L"--restarts", false, [](Options& o, const std::wstring&) { o.run.restarts = true; }},
      {L"--quick", false, [](Options& o, const std::wstring&) { o.run.quick = true; }},
      {L"--only", true, [](Options& o, const std::wstring& more) { o.run.only = ToNarrow(more); }},
      {L"--report", true, [](Options& o, const std::wstring& more) { o.report = more; }},
      {L"--computer", true, [](Options& o, const std::wstring& more) { o.computer = more; }},
      // By itself, of itself.
      {L"--agent", false, [](Options& o, const std::wstring&) { o.what = Options::Do::kAgent; }},
      {L"--group", true,
       [](Options& o, const std::wstring& more) {
         o.what = Options::Do::kGroup;
         o.argument = ToNarrow(more);
       }},
      {L"--ask", true,
       [](Options& o, const std::wstring& more) {
         o.what = Options::Do::kAsk;
         o.argument = ToNarrow(more);
       }},
  };
  for (std::size_t i = 0; i < words.size(); ++i) {
    const Word* found = nullptr;
    for (const Word& each : kWords) {
      found = words[i] == each.name ? &each : found;
    }
    if (found == nullptr && options.what == Options::Do::kContract && !words[i].starts_with(L"--")) {
      options.run.only = ToNarrow(words[i]);  // a group
      continue;
    }
    if (found == nullptr || (found->wantsMore && i + 1 == words.size())) {
      return (found == nullptr ? "unknown option " : "something is missing after ") + ToNarrow(words[i]);
    }
    found->take(options, found->wantsMore ? words[++i] : std::wstring());
  }
  return {};
}

int List() {
  Print(
      "Nothing was changed. With --run this computer is asked for what follows, as an administrator and as "
      "LocalSystem;\n"
      "--only BEGINNING for a part, --restarts lets Windows restart, --quick leaves out what takes a minute, --report\n"
      "FOLDER says where the report goes. --undo puts everything back after a run that was cut short.\n\n"
      "What a contract case makes (users, services, files, keys, a proxy) bears the name NorvaneProof or is put back "
      "at\n"
      "its end. The life installs the NorvaneKiosk.exe beside the kit, pairs it with a portal inside the kit, which "
      "makes\n"
      "a local user NorvaneKiosk and sets automatic sign-in, power, updates and two tasks, and takes all of it away "
      "again.\n\n");
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

// Here and now, as whoever runs this: for the developer of a case.
int AskContract(const Options& options) {
  Print(std::string("asked of: ") + contract::Name(contract::ThisPlatform()) + "\n");
  Report report(ReportFolder(options));
  if (const std::string why = options.report.empty() ? "" : report.Begin(Head(ProductProgram())); !why.empty()) {
    return Refuse(why);
  }
  int result = kNothingBroken;
  for (const contract::Group* group : contract::Groups()) {
    if (!std::string(group->name).starts_with(options.run.only)) {
      continue;
    }
    RunGroup(*group, [&](const contract::Case& each, const contract::Result& answer) {
      const std::string id = std::string(group->name) + "/" + each.name;
      result = answer.verdict == Verdict::kBroken ? kBroken : result;
      if (!options.report.empty()) {
        report.Add({"contract/" + id, "administrator", each.promise, answer});
        return;
      }
      std::string verdict = Name(answer.verdict);
      verdict.resize(13, ' ');
      Print(verdict + " " + id + (answer.why.empty() ? "" : ": " + answer.why) + "\n");
    });
  }
  return result;
}

std::string WhyNotNow(const Options& options) {
  switch (LookAtJournal()) {
    case JournalState::kThere:
      return "a run was cut short here; kiosk_proof --undo puts everything back";
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
  std::size_t printed = static_cast<std::size_t>(TheRun().TheReport().Lines());
  for (Report seen(folder); WaitForSingleObject(agent, kLook) == WAIT_TIMEOUT;) {
    if (seen.GoOn()) {
      seen.PrintFrom(printed);
    }
  }
  Report report(folder);
  if (!report.GoOn() || LookAtJournal() != JournalState::kNone) {
    PrintError("kiosk_proof: the agent ended too early; kiosk_proof --undo puts everything back\n");
    return kBroken;
  }
  report.PrintFrom(printed);
  Print(report.Summary() + "; the report is in " + ToNarrow(folder) + "\n");
  return report.Count(Verdict::kBroken) == 0 ? kNothingBroken : kBroken;
}

int RunAll(const Options& options) {
  if (const std::string why = WhyNotNow(options); !why.empty()) {
    return Refuse(why);
  }
  const std::wstring folder = ReportFolder(options);
  if (const std::string why = TheRun().Begin(folder, options.run); !why.empty()) {
    return Refuse(why);
  }
  if (const std::string why = BeginJournal(); !why.empty()) {
    return Refuse(why);
  }
  constexpr wchar_t kConnections[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
  if (!NoteContractCases() || !NoteValue(kConnections, L"WinHttpSettings") || !TheRun().SetNote("step", 0) ||
      !TheRun().SetBefore(Snapshot())) {
    static_cast<void>(UndoAll());
    return Refuse("the journal cannot be written");
  }
  TheRun().AskCases("administrator");
  const kiosk::win32::KernelHandle agent = StartAgent();
  if (!agent) {
    const std::string error = std::to_string(GetLastError());
    static_cast<void>(UndoAll());
    return Refuse("the agent cannot be started (" + error + ")");
  }
  return Follow(agent.Get(), folder);
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
    case Options::Do::kGroup: {
      const contract::Group* const group = FindGroup(options.argument);
      if (group == nullptr) {
        return Refuse("there is no such group");
      }
      AskGroup(*group);
      ExitProcess(kNothingBroken);  // with whatever threads a case has left behind
    }
    case Options::Do::kAgent:
      return ServeAsAgent() ? kNothingBroken : Refuse("only the service manager starts the agent");
    case Options::Do::kAsk:
      return Ask(options.argument);
  }
  return kRefused;
}

}  // namespace
}  // namespace proof

int wmain(int count, wchar_t** arguments) { return proof::Main({arguments + 1, arguments + count}); }
