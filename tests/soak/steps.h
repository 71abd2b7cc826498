// What can happen to a terminal, as data: a list of steps can be drawn from a seed, written down, played again, and
// played without some of its steps.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::soak {

// What the number of each means is said where it is played (hand.cpp, around.cpp). A step that does not fit the moment
// (a sign-out while nobody is signed in) does nothing, so that any part of a list is a list.
enum class Kind : std::uint32_t {
  kWait,
  kPortal,
  kRevoke,
  kPair,
  kPolicy,
  kSignIn,
  kSignOut,
  kUnlock,
  kMaintenance,
  kRestart,
  kKill,
  kFail,
  kDisk,
  kStateKey,
  kHeal,
  kClock,
  kSetting,
  kWindows,
  kUpdates,
  kLogCentre,
  kNetwork,
  kClient,
  kStranger,
  kUpgrade,
  kUninstall,
  kInstall,
  kPeace,
  kCount
};

struct Step {
  Kind kind = Kind::kWait;
  std::uint32_t number = 0;
};

// "SignIn 2". An unknown text is a step that waits for nothing.
std::string TextOf(const Step& step);
std::vector<Step> Parse(std::string_view lines);
std::string TextOf(const std::vector<Step>& steps);

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
