#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <vector>

// What the benchmarks share: interleaved timing and the one table that they all print.
namespace kiosk::bench {

// Keeps the optimiser from dropping work whose result nobody reads.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The median time of one call of each action, in microseconds. The actions take turns in every round, so that a busy
// machine slows all of them alike; the first round only warms up.
inline std::vector<double> MedianTimes(int rounds, int callsPerRound,
                                       const std::vector<std::function<void()>>& actions) {
  using Clock = std::chrono::steady_clock;
  std::vector<std::vector<double>> times(actions.size());
  for (int round = 0; round <= rounds; ++round) {
    for (std::size_t i = 0; i < actions.size(); ++i) {
      const Clock::time_point start = Clock::now();
      for (int call = 0; call < callsPerRound; ++call) {
        actions[i]();
      }
      const std::chrono::duration<double, std::micro> taken = Clock::now() - start;
      if (round > 0) {
        times[i].push_back(taken.count() / callsPerRound);
      }
    }
  }
  std::vector<double> medians;
  medians.reserve(times.size());
  for (const std::vector<double>& series : times) {
    medians.push_back(Median(series));
  }
  return medians;
}

// A measured quantity, less being better, and what it is compared with.
struct Other {
  const char* name;
  double value;
};

// kTimesBetter: other / ours is to be at least `limit`. kTimesWorse: ours / other is to be at most `limit`.
struct Aim {
  enum class Kind { kTimesBetter, kTimesWorse } kind;
  double limit;
};

inline Aim TimesBetter(double limit) { return {Aim::Kind::kTimesBetter, limit}; }
inline Aim TimesWorse(double limit) { return {Aim::Kind::kTimesWorse, limit}; }

// Prints one line of the table. A missed aim is shown and fails nothing: the numbers come from a shared machine.
inline void Row(const char* name, double ours, Other other, const char* unit, Aim aim) {
  const bool better = aim.kind == Aim::Kind::kTimesBetter;
  const double ratio = better ? other.value / ours : ours / other.value;
  const bool reached = better ? ratio >= aim.limit : ratio <= aim.limit;
  (void)std::printf("%-28s ours %10.2f %s  %-12s %10.2f %s  ratio %6.2f  aim %s %.2f %s\n", name, ours, unit,
                    other.name, other.value, unit, ratio, better ? ">=" : "<=", aim.limit,
                    reached ? "reached" : "MISSED");
  (void)std::fflush(stdout);
}

}  // namespace kiosk::bench
