// Random months in the life of a terminal.
//
//   kiosk_soak SECONDS [SEED]    plays seeds from SEED on for so long; a seed that fails is shrunk
//   kiosk_soak replay FILE...    plays the steps of each file
//   kiosk_soak show SEED         prints the steps of a seed
//
// It ends with 0 when everything held. Each process of the service is a process of this program ("life"), on the
// simulated machine of the Wine prefix; docs/testing.md has the rest.
#include "sim/faults.h"
#include "sim/random.h"
#include "tests/soak/life.h"
#include "tests/soak/world.h"
#include "tests/support/fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kiosk::soak {
namespace {

constexpr std::size_t kStepsOfASeed = 120;
constexpr std::size_t kShown = 50;
constexpr ULONGLONG kShrinkTime = 180'000;  // of real time

struct Totals {
  unsigned seeds = 0, steps = 0, lives = 0, kills = 0, boots = 0, kiosks = 0, givenBack = 0;
  std::uint64_t lived = 0, served = 0, checkIns = 0;
};
Totals totals;

// A process of the service. What the product prints is of no interest.
[[noreturn]] void PlayLife() {
  LoadWorld();
  SetStdHandle(STD_OUTPUT_HANDLE, nullptr);
  const std::vector<Step> steps = Parse(ReadNote(L"Steps"));
  auto* const life = new Life();  // left to the end of the process, with its threads
  life->Play(steps);
  EndProcess(0);
}

// Plays them from an owner's computer to a last peace. What did not hold; empty when everything did.
std::string PlayAll(const std::vector<Step>& steps) {
  MakeComputer();
  std::vector<Step> all = steps;
  all.push_back(Parse("Peace 0").front());
  WriteNote(L"Steps", TextOf(all));
  for (;;) {
    const intptr_t code = RunLife();
    LoadWorld();
    if (code == static_cast<intptr_t>(sim::kFaultExitCode)) {
      world.utc += 10 * 10'000'000ULL;  // until the service manager starts it again
      world.ticks = world.boot ? 1 : world.ticks + 10'000;
      SaveWorld();
    } else if (code != 0) {
      const std::string sentence = ReadNote(L"Broken");
      return sentence.empty() ? "end: the service's process ended with " + std::to_string(code) : sentence;
    } else if (world.over) {
      return {};
    }
    if (world.lives > 20 * all.size()) {
      return "end: the service is started again and again";
    }
  }
}

void Count(std::size_t steps) {
  totals.seeds += 1;
  totals.steps += static_cast<unsigned>(steps);
  totals.lives += world.lives;
  totals.kills += world.kills;
  totals.boots += world.boots;
  totals.kiosks += world.provisioned;
  totals.givenBack += world.removals;
  totals.lived += world.lived;
  totals.served += world.served;
  totals.checkIns += world.checkIns;
}

void PrintTotals(ULONGLONG since) {
  constexpr double kMonth = 30.44 * 24 * 3600 * 1000;
  std::printf(
      "soak: %u seeds, %u steps, %u lives, %u kills, %u starts of Windows, %u times a whole kiosk, %u times given "
      "back, %.2f months lived (%.2f with the service running), %llu check-ins, in %llu s\n",
      totals.seeds, totals.steps, totals.lives, totals.kills, totals.boots, totals.kiosks, totals.givenBack,
      static_cast<double>(totals.lived) / kMonth, static_cast<double>(totals.served) / kMonth,
      static_cast<unsigned long long>(totals.checkIns), (GetTickCount64() - since) / 1000);
}

std::string NameOf(const std::string& broken) { return broken.substr(0, broken.find(':')); }

// Leaves steps out for as long as what is left breaks the same, first many at a time, then few.
std::vector<Step> Shrink(std::vector<Step> steps, const std::string& broken) {
  const ULONGLONG end = GetTickCount64() + kShrinkTime;
  for (std::size_t length = steps.size() / 2; length > 0; length /= 2) {
    for (std::size_t from = 0; from < steps.size() && GetTickCount64() < end;) {
      std::vector<Step> fewer(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(from));
      const std::size_t rest = std::min(from + length, steps.size());
      fewer.insert(fewer.end(), steps.begin() + static_cast<std::ptrdiff_t>(rest), steps.end());
      if (NameOf(PlayAll(fewer)) == NameOf(broken)) {
        steps = fewer;
      } else {
        from += length;
      }
    }
  }
  return steps;
}

// Shows the seed that failed, and keeps the short list of its steps beside those that ./test replays.
void Tell(std::uint64_t seed, std::vector<Step> steps, const std::string& broken) {
  std::printf("soak: seed %llu FAILED at step %zu: %s\n", static_cast<unsigned long long>(seed), steps.size(),
              broken.c_str());
  for (std::size_t i = steps.size() > kShown ? steps.size() - kShown : 0; i < steps.size(); ++i) {
    std::printf("  %zu: %s", i + 1, TextOf({&steps[i], 1}).c_str());
  }
  static_cast<void>(std::fflush(stdout));
  steps = Shrink(std::move(steps), broken);
  const std::string file = "tests\\soak\\seeds\\failed-" + std::to_string(seed) + ".steps";
  const std::string text = "# " + broken + "\n" + TextOf(steps);
  std::printf("soak: shrunk to %zu steps, in %s:\n%s", steps.size(), file.c_str(), text.c_str());
  test::WriteWholeFile(std::wstring(file.begin(), file.end()), text);
}

int Replay(int count, char** files) {
  const ULONGLONG since = GetTickCount64();
  int status = 0;
  for (int i = 0; i < count; ++i) {
    const std::vector<Step> steps =
        Parse(test::ReadWholeFile(std::wstring(files[i], files[i] + std::strlen(files[i]))));
    const std::string broken = PlayAll(steps);
    Count(steps.size());
    if (steps.empty() || !broken.empty()) {
      std::printf("soak: %s FAILED: %s\n", files[i], steps.empty() ? "no steps in it" : broken.c_str());
      status = 1;
    }
  }
  PrintTotals(since);
  return status;
}

int RunSeeds(std::uint64_t seconds, std::uint64_t seed) {
  const ULONGLONG since = GetTickCount64();
  for (; GetTickCount64() - since < seconds * 1000; ++seed) {
    std::vector<Step> steps = Draw(seed, kStepsOfASeed);
    const std::string broken = PlayAll(steps);
    Count(world.next);
    if (!broken.empty()) {
      PrintTotals(since);
      steps.resize(std::min<std::size_t>(world.next, steps.size()));
      Tell(seed, std::move(steps), broken);
      return 1;
    }
  }
  PrintTotals(since);
  return 0;
}

}  // namespace
}  // namespace kiosk::soak

int main(int count, char** arguments) {
  using namespace kiosk::soak;
  const std::string first = count > 1 ? arguments[1] : "";
  if (first == "life") {
    PlayLife();
  }
  int status = 2;
  if (first == "replay") {
    status = Replay(count - 2, arguments + 2);
  } else if (first == "show" && count > 2) {
    static_cast<void>(
        std::fputs(TextOf(Draw(std::strtoull(arguments[2], nullptr, 10), kStepsOfASeed)).c_str(), stdout));
    status = 0;
  } else if (!first.empty()) {
    status =
        RunSeeds(std::strtoull(arguments[1], nullptr, 10), count > 2 ? std::strtoull(arguments[2], nullptr, 10) : 1);
  }
  static_cast<void>(std::fflush(nullptr));
  EndProcess(static_cast<unsigned>(status));
}
