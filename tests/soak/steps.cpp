#include "tests/soak/steps.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace kiosk::soak {
namespace {

// How often a step comes up among all, and numbers below `limit`.
struct Row {
  Kind kind;
  const char* name;
  std::uint32_t weight;
  std::uint32_t limit;
};

constexpr Row kRows[] = {
    {Kind::kWait, "Wait", 34, 0},
    {Kind::kPortal, "Portal", 8, 8},
    {Kind::kRevoke, "Revoke", 2, 1},
    {Kind::kPair, "Pair", 10, 8},
    {Kind::kPolicy, "Policy", 5, 1U << 20},
    {Kind::kSignIn, "SignIn", 4, 2},
    {Kind::kSignOut, "SignOut", 4, 4},
    {Kind::kUnlock, "Unlock", 5, 4},
    {Kind::kMaintenance, "Maintenance", 3, 4},
    {Kind::kRestart, "Restart", 7, 12},
    {Kind::kKill, "Kill", 6, 1000},
    {Kind::kFail, "Fail", 5, 1000},
    {Kind::kDisk, "Disk", 2, 3},
    {Kind::kStateKey, "StateKey", 2, 2},
    {Kind::kHeal, "Heal", 6, 1},
    {Kind::kClock, "Clock", 3, 1000},
    {Kind::kSetting, "Setting", 10, 64},
    {Kind::kWindows, "Windows", 4, 10},
    {Kind::kUpdates, "Updates", 5, 1U << 16},
    {Kind::kLogCentre, "LogCentre", 3, 6},
    {Kind::kNetwork, "Network", 2, 3},
    {Kind::kClient, "Client", 2, 2},
    {Kind::kStranger, "Stranger", 2, 32},
    {Kind::kUpgrade, "Upgrade", 2, 1},
    {Kind::kUninstall, "Uninstall", 2, 1},
    {Kind::kInstall, "Install", 6, 1},
    {Kind::kPeace, "Peace", 2, 1},
};
static_assert(std::size(kRows) == static_cast<std::size_t>(Kind::kCount));

constexpr std::uint32_t Weights() {
  std::uint32_t sum = 0;
  for (const Row& row : kRows) {
    sum += row.weight;
  }
  return sum;
}

// Seconds: mostly some of them, now and then hours.
std::uint32_t DrawWait(Random& random) {
  constexpr std::uint32_t kLimits[] = {20, 20, 120, 120, 300, 1800, 3600, 10'800};
  return 1 + random.Below(kLimits[random.Below(std::size(kLimits))]);
}

const Row* DrawRow(Random& random) {
  std::uint32_t ticket = random.Below(Weights());
  const Row* row = kRows;
  for (; ticket >= row->weight; ++row) {
    ticket -= row->weight;
  }
  return row;
}

// What changes much, so that a change that is to fail or to be the last is soon found.
constexpr Kind kBusy[] = {Kind::kPair,   Kind::kPair,        Kind::kPair,   Kind::kUninstall,
                          Kind::kRevoke, Kind::kMaintenance, Kind::kSetting};

const Row* RowOf(Kind kind) { return kRows + static_cast<std::size_t>(kind); }

}  // namespace

std::string TextOf(const Step& step) {
  return std::string(kRows[static_cast<std::size_t>(step.kind)].name) + " " + std::to_string(step.number);
}

std::string TextOf(const std::vector<Step>& steps) {
  std::string text;
  for (const Step& step : steps) {
    text += TextOf(step) + "\n";
  }
  return text;
}

std::vector<Step> Parse(std::string_view lines) {
  std::vector<Step> steps;
  while (!lines.empty()) {
    const std::string line(lines.substr(0, lines.find('\n')));
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    const std::size_t blank = line.find(' ');
    const Row* const row = std::find_if(std::begin(kRows), std::end(kRows),
                                        [&](const Row& each) { return line.substr(0, blank) == each.name; });
    if (row != std::end(kRows) && blank != std::string::npos) {
      steps.push_back({row->kind, static_cast<std::uint32_t>(std::strtoul(line.c_str() + blank, nullptr, 10))});
    }
  }
  return steps;
}

std::vector<Step> Draw(std::uint64_t seed, std::size_t count) {
  Random random(seed);
  std::vector<Step> steps;
  while (steps.size() < count) {
    const bool armed = !steps.empty() && (steps.back().kind == Kind::kKill || steps.back().kind == Kind::kFail);
    const Row* const row =
        armed && random.Below(2) == 0 ? RowOf(kBusy[random.Below(std::size(kBusy))]) : DrawRow(random);
    steps.push_back({row->kind, row->kind == Kind::kWait ? DrawWait(random) : random.Below(row->limit)});
  }
  return steps;
}

}  // namespace kiosk::soak
