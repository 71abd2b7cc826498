#include "tools/proof/agent.h"

#include "tools/proof/computer.h"
#include "tools/proof/files.h"
#include "tools/proof/journal.h"
#include "tools/proof/life.h"
#include "tools/proof/product.h"
#include "tools/proof/run.h"
#include "tools/proof/services.h"
#include "tools/proof/snapshot.h"
#include "win32/clock.h"
#include "win32/program_path.h"

#include <exception>

namespace proof {
namespace {

using contract::Result;
using contract::Verdict;
using kiosk::win32::ServiceHandle;

constexpr int kMostStarts = 13;      // 12 restarts
constexpr double kLongest = 86'400;  // s
constexpr double kSameStart = 60;    // s by which the time of Windows' start may seem to move

double Seconds(std::uint64_t fileTime) {
  return static_cast<double>(fileTime) / static_cast<double>(kiosk::win32::kFileTimeSecond);
}

// Whom the service manager made of LocalSystem; Wine makes an ordinary account of it.
const char* Caller() { return IsMember(L"S-1-5-18") ? "LocalSystem" : "the agent's account"; }

void AddStep(const Step& step, const Result& answer) {
  TheRun().TheReport().Add({step.what.name, Caller(), step.what.promise, answer});
}

// Why the step is left out; null when it is not.
const char* WhyLeftOut(const Step& step) {
  if (step.kind == Step::kRestarts && !TheRun().Options().restarts) {
    return "Windows may not restart (--restarts)";
  }
  return step.kind == Step::kMinutes && TheRun().Options().quick ? "it takes a minute, and --quick is set" : nullptr;
}

// A step in which the process ended before. Where a restart was to come it is over, if there was one.
Result OfInterrupted(const Step& step) {
  const double before = TheRun().Note("windowsStarted").number();
  const double now = Seconds(kiosk::win32::WindowsStartedAt());
  const bool restarted = now > before + kSameStart;
  if (step.kind == Step::kRestarts) {
    return {restarted ? Verdict::kHeld : Verdict::kBroken, restarted ? "" : "Windows did not restart"};
  }
  return {Verdict::kCouldNotRun, restarted ? "Windows restarted in it" : "the kit ended in it"};
}

void PlaySteps() {
  Run& run = TheRun();
  const std::vector<Step>& steps = Steps();
  auto next = static_cast<std::size_t>(run.Note("step").number());
  if (run.Note("running").boolean() && next < steps.size()) {
    AddStep(steps[next], OfInterrupted(steps[next]));
    run.SetNote("running", false);
    run.SetNote("step", ++next);
  }
  for (; next < steps.size(); run.SetNote("step", ++next)) {
    const Step& step = steps[next];
    if (!run.Wants(step.what.name)) {
      continue;
    }
    if (const char* const why = WhyLeftOut(step); why != nullptr) {
      AddStep(step, {Verdict::kCouldNotRun, why});
      continue;
    }
    run.SetNote("windowsStarted", Seconds(kiosk::win32::WindowsStartedAt()));
    run.SetNote("running", true);
    run.TheReport().Set("running", step.what.name);
    AddStep(step, step.what.Run());
    run.SetNote("running", false);
  }
}

// What the product's log warned of.
std::vector<std::string> Warnings() {
  std::vector<std::string> lines = Split(ProductLog());
  std::erase_if(lines, [](const std::string& line) {
    return line.find("] WARN ") == std::string::npos && line.find("] ERROR ") == std::string::npos;
  });
  return lines;
}

void Play() {
  Run& run = TheRun();
  const int starts = static_cast<int>(run.Note("starts").number()) + 1;
  run.SetNote("starts", starts);
  const double now = Seconds(kiosk::win32::FileTimeNow());
  if (starts == 1) {
    run.SetNote("begun", now);
    run.AskCases(Caller());
  }
  if (starts > kMostStarts || now > run.Note("begun").number() + kLongest) {
    run.TheReport().Add({"kit/end", Caller(), "the run ends in time", {Verdict::kBroken, "it was given up"}});
    return;
  }
  PlaySteps();
}

void End() {
  Run& run = TheRun();
  Report& report = run.TheReport();
  report.Set("running", "kit/undo");
  report.Set("restarts", run.Note("starts").number() - 1);
  report.SetList("log", Warnings());
  const std::vector<std::string> before = run.Before();
  const std::string notUndone = UndoAll(true);
  std::vector<std::string> left = Differences(before, Snapshot());
  report.SetList("differences", left);
  if (!notUndone.empty()) {
    left.push_back(notUndone);
  }
  report.Add({"kit/undo", Caller(), "the computer is as before", HeldWithout(left)});
  report.Set("done", true);
}

}  // namespace

unsigned long StartAgent() {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  if (!manager || !NoteService(kAgentService)) {
    return 0;
  }
  const ServiceHandle service(CreateServiceW(
      manager.Get(), kAgentService, L"Proof of the Norvane kiosk", SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
      SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, (L"\"" + kiosk::win32::ProgramPath() + L"\" --agent").c_str(), nullptr,
      nullptr, nullptr, nullptr, nullptr));
  return service && StartServiceW(service.Get(), 0, nullptr) != 0 ? ProcessOf(service.Get()) : 0;
}

// The edge to the service manager: what the standard library throws ends the run.
bool RunAgent() noexcept {
  try {
    if (LookAtJournal() != JournalState::kThere || !TheRun().GoOn().empty()) {
      return false;
    }
    PreparePortal(TheRun().ThePortal());
    Play();
    End();
  } catch (const std::exception& problem) {
    TheRun().TheReport().Add({"kit/end", Caller(), "the run ends by itself", {Verdict::kBroken, problem.what()}});
  }
  return true;
}

}  // namespace proof
