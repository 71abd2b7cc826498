#include "tests/soak/steps.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace kiosk::soak {
namespace {

// What changes much, so that a change that is to fail or to be the last is soon found.
constexpr const char* kBusy[] = {"Pair", "Pair", "Pair", "Uninstall", "Revoke", "Maintenance", "Setting"};

// Null when there is none of that name.
const StepKind* Named(std::string_view name) {
  for (const StepKind& kind : StepKinds()) {
    if (kind.name == name) {
      return &kind;
    }
  }
  return nullptr;
}

const StepKind* DrawKind(Random& random) {
  std::uint32_t weights = 0;
  for (const StepKind& kind : StepKinds()) {
    weights += kind.weight;
  }
  std::uint32_t ticket = random.Below(weights);
  const StepKind* kind = StepKinds().data();
  for (; ticket >= kind->weight; ++kind) {
    ticket -= kind->weight;
  }
  return kind;
}

std::uint32_t DrawSeconds(Random& random) {
  constexpr std::uint32_t kLimits[] = {20, 20, 120, 120, 300, 1800, 3600, 10'800};
  return 1 + random.Below(kLimits[random.Below(std::size(kLimits))]);
}

}  // namespace

std::string TextOf(std::span<const Step> steps) {
  std::string text;
  for (const Step& step : steps) {
    text += std::string(step.kind->name) + " " + std::to_string(step.number) + "\n";
  }
  return text;
}

std::vector<Step> Parse(std::string_view lines) {
  std::vector<Step> steps;
  while (!lines.empty()) {
    const std::string line(lines.substr(0, lines.find('\n')));
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    const std::size_t blank = std::min(line.find(' '), line.size());
    if (const StepKind* kind = Named(line.substr(0, blank)); kind != nullptr) {
      steps.push_back({kind, static_cast<std::uint32_t>(std::strtoul(line.c_str() + blank, nullptr, 10))});
    }
  }
  return steps;
}

std::vector<Step> Draw(std::uint64_t seed, std::size_t count) {
  Random random(seed);
  std::vector<Step> steps;
  while (steps.size() < count) {
    const bool armed = !steps.empty() && (steps.back().Is("Kill") || steps.back().Is("Fail"));
    const StepKind* const kind =
        armed && random.Below(2) == 0 ? Named(kBusy[random.Below(std::size(kBusy))]) : DrawKind(random);
    steps.push_back({kind, kind->limit == 0 ? DrawSeconds(random) : random.Below(kind->limit)});
  }
  return steps;
}

}  // namespace kiosk::soak
