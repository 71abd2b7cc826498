// What can happen to a terminal, as data: a list of steps can be drawn from a seed, written down, played again, and
// played without some of its steps.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::soak {

class Life;

// A step that does not fit the moment (a sign-out while nobody is signed in) does nothing, so that any part of a list
// is a list.
struct StepKind {
  const char* name;
  std::uint32_t weight;  // how often it comes up among all
  std::uint32_t limit;   // its numbers are below that; 0: seconds, mostly some of them, now and then hours
  void (*play)(Life& life, std::uint32_t number);
};

// All of them; what the number of each means is said where it is played (hand.cpp, around.cpp).
std::span<const StepKind> StepKinds();

struct Step {
  const StepKind* kind = nullptr;
  std::uint32_t number = 0;

  [[nodiscard]] bool Is(std::string_view name) const { return kind != nullptr && kind->name == name; }
};

// A line for each: "SignIn 2". Lines that are no step are passed over.
std::string TextOf(std::span<const Step> steps);
std::vector<Step> Parse(std::string_view lines);

// The same for the same seed, with any compiler and library.
std::vector<Step> Draw(std::uint64_t seed, std::size_t count);

// Numbers from a seed (PCG32, O'Neill 2014: XSH-RR).
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 2 + 1) { Next(); }
  std::uint32_t Next() {
    const std::uint64_t old = state_;
    state_ = old * 6364136223846793005U + 1442695040888963407U;
    const auto mixed = static_cast<std::uint32_t>(((old >> 18) ^ old) >> 27);
    const auto turn = static_cast<std::uint32_t>(old >> 59);
    return (mixed >> turn) | (mixed << ((32 - turn) & 31));
  }
  // Below `limit`; the first numbers come up a little more often, which is of no matter here.
  std::uint32_t Below(std::uint32_t limit) { return Next() % limit; }

 private:
  std::uint64_t state_;
};

}  // namespace kiosk::soak
