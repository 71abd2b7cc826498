#include "tools/proof/run.h"

#include "json/serialise.h"
#include "tools/proof/computer.h"
#include "tools/proof/files.h"
#include "tools/proof/groups.h"
#include "tools/proof/journal.h"
#include "tools/proof/snapshot.h"
#include "win32/wide_text.h"

#include <optional>
#include <utility>

namespace proof {
namespace {

using kiosk::json::Value;

const std::wstring kNotes = std::wstring(kWorkFolder) + L"\\run.json";
const std::wstring kBefore = std::wstring(kWorkFolder) + L"\\before.txt";
const std::wstring kProblem = std::wstring(kWorkFolder) + L"\\problem.txt";

}  // namespace

Run& TheRun() {
  static Run* const run = new Run;
  return *run;
}

std::string Run::Begin(const std::wstring& reportFolder, const RunOptions& options) {
  options_ = options;
  report_ = std::make_unique<Report>(reportFolder);
  std::string problem = report_->Begin(Head(BesideKit(L"NorvaneKiosk.exe")));
  notes_.Set("report", kiosk::win32::ToNarrow(reportFolder));
  notes_.Set("restarts", options.restarts);
  notes_.Set("quick", options.quick);
  notes_.Set("only", options.only);
  return problem;
}

std::string Run::GoOn() {
  Value notes = ReadJson(kNotes);
  std::string problem;
  if (!Member(notes, "report").IsString() || !Member(notes, "step").IsNumber()) {
    problem = "the notes of the run are damaged: " + kiosk::win32::ToNarrow(kNotes);
  } else {
    notes_ = std::move(notes);
    options_ = {Note("restarts").boolean(), Note("quick").boolean(), Note("only").text()};
    report_ = std::make_unique<Report>(kiosk::win32::ToWide(Note("report").text()));
    portal_.Change([this](Portal::State& state) { state.tokenDigest = Note("tokenDigest").text(); });
    if (Note("starts").IsNull() && !ReplaceFileText(kBefore, Joined(Snapshot()))) {
      problem = "what the computer is like cannot be noted (" + std::to_string(GetLastError()) + ")";
    } else if (!report_->GoOn()) {
      problem = "the report of the run is damaged: " + Note("report").text();
    } else if (!portal_.Start(static_cast<std::uint16_t>(Note("port").number())) || !SetNote("port", portal_.Port())) {
      problem = "the portal of the run cannot be started (" + std::to_string(GetLastError()) + ")";
    }
  }
  if (!problem.empty()) {
    static_cast<void>(ReplaceFileText(kProblem, problem));
  }
  return problem;
}

void Run::AskCases(const char* caller) {
  std::optional<std::vector<std::string>> before;
  for (const contract::Group* group : contract::Groups()) {
    const std::string begin = "contract/" + std::string(group->name) + "/";
    if (!Wants(begin) && !options_.only.starts_with(begin)) {
      continue;
    }
    if (!before) {
      before = Snapshot();
    }
    report_->Set("running", begin);
    const std::vector<contract::Result> answers = AnswersOf(*group);
    for (std::size_t i = 0; i < answers.size(); ++i) {
      const contract::Case& each = group->cases[i];
      if (Wants(begin + each.name)) {
        report_->Add({begin + each.name, caller, each.promise, answers[i]});
      }
    }
  }
  if (before) {
    report_->Add({"kit/cases", caller, "the contract cases leave the computer as it was",
                  HeldWithout(Differences(*before, Snapshot()))});
  }
}

bool Run::SetNote(const char* name, Value value) {
  notes_.Set(name, std::move(value));
  return ReplaceFileText(kNotes, kiosk::json::Serialise(notes_));
}

std::string WhyCutShort() {
  return ReadFileText(kProblem).value_or("a run was cut short here") + "; kiosk_proof --undo puts everything back";
}

std::vector<std::string> Run::Before() const { return Split(ReadFileText(kBefore).value_or("")); }

}  // namespace proof
