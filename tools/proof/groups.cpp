#include "tools/proof/groups.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "tools/proof/files.h"
#include "win32/console.h"
#include "win32/program_path.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace proof {
namespace {

using contract::Result;
using contract::Verdict;
using kiosk::json::Member;
using kiosk::json::Value;

constexpr DWORD kGroupLimit = 120'000;  // ms

std::string HowItEnded(const Ran& ran) {
  if (ran.error == WAIT_TIMEOUT) {
    return "its group took longer than " + std::to_string(kGroupLimit / 1000) + " s";
  }
  char code[16];
  static_cast<void>(std::snprintf(code, sizeof(code), "0x%lX", ran.error != 0 ? ran.error : ran.exitCode));
  return std::string(ran.error != 0 ? "no process for its group: " : "the process of its group ended with ") + code;
}

}  // namespace

bool AskGroup(const std::string& name) {
  const auto groups = contract::Groups();
  const auto group =
      std::find_if(groups.begin(), groups.end(), [&](const contract::Group* each) { return name == each->name; });
  if (group == groups.end()) {
    return false;
  }
  for (const contract::Case& each : (*group)->cases) {
    const Result result = each.Run();
    Value line = Value::Object();
    line.Set("verdict", static_cast<int>(result.verdict));
    line.Set("why", result.why);
    kiosk::win32::Print(kiosk::json::Serialise(line) + "\n");
  }
  return true;
}

std::vector<Result> AnswersOf(const contract::Group& group) {
  const Ran ran = RunProgram(
      L"\"" + kiosk::win32::ProgramPath() + L"\" --group \"" + kiosk::win32::ToWide(group.name) + L"\"", kGroupLimit);
  std::vector<Result> answers;
  for (const std::string& line : Split(ran.output)) {
    // Anything else that it says, or Windows in its name, is no answer.
    if (const std::optional<Value> answer = kiosk::json::Parse(line); answer && Member(*answer, "verdict").IsNumber()) {
      answers.push_back(
          {static_cast<Verdict>(static_cast<int>(Member(*answer, "verdict").number())), Member(*answer, "why").text()});
    }
  }
  answers.resize(std::min(answers.size(), group.cases.size()));
  answers.resize(group.cases.size(), {Verdict::kCouldNotRun, HowItEnded(ran)});
  return answers;
}

}  // namespace proof
