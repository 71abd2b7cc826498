#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// What the benchmarks share: interleaved timing and the one table that they all print.
namespace kiosk::bench {

// Keeps the optimiser from dropping work whose result nobody reads.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

// What rounds of a measurement took, in microseconds: half of them lay between `low` and `high`.
struct Times {
  double median;
  double low;
  double high;
};

inline Times TimesOf(std::vector<double> rounds) {
  std::sort(rounds.begin(), rounds.end());
  return {rounds[rounds.size() / 2], rounds[rounds.size() / 4], rounds[rounds.size() - 1 - rounds.size() / 4]};
}

// What one call of each action takes. The actions take turns in every round, so that a busy machine slows all of them
// alike; the first round only warms up.
inline std::vector<Times> Measure(int rounds, int callsPerRound, const std::vector<std::function<void()>>& actions) {
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
  std::vector<Times> result;
  result.reserve(times.size());
  for (const std::vector<double>& series : times) {
    result.push_back(TimesOf(series));
  }
  return result;
}

// What a measured quantity is compared with.
struct Other {
  const char* name;
  Times times;
};

// kTimesBetter: other / ours is to be at least `limit`. kTimesWorse: ours / other is to be at most `limit`.
struct Aim {
  enum class Kind { kTimesBetter, kTimesWorse } kind;
  double limit;
};

inline Aim TimesBetter(double limit) { return {Aim::Kind::kTimesBetter, limit}; }
inline Aim TimesWorse(double limit) { return {Aim::Kind::kTimesWorse, limit}; }

inline std::string Text(const Times& times) {
  const bool small = times.median < 10'000;
  const double unit = small ? 1 : 1000;
  const int digits = times.median / unit < 100 ? 2 : 0;
  char text[64];
  (void)std::snprintf(text, sizeof(text), "%.*f %s (%.*f-%.*f)", digits, times.median / unit, small ? "us" : "ms",
                      digits, times.low / unit, digits, times.high / unit);
  return text;
}

// Prints one line of the Markdown table in docs/performance.md. A missed aim is shown and fails nothing: the numbers
// come from a shared machine.
inline void Row(const std::string& name, const Times& ours, const Other& other, Aim aim) {
  const bool better = aim.kind == Aim::Kind::kTimesBetter;
  const double ratio = better ? other.times.median / ours.median : ours.median / other.times.median;
  const bool reached = better ? ratio >= aim.limit : ratio <= aim.limit;
  (void)std::printf("| %s | %s | %s, %s | %.2f | at %s %g | %s |\n", name.c_str(), Text(ours).c_str(), other.name,
                    Text(other.times).c_str(), ratio, better ? "least" : "most", aim.limit,
                    reached ? "reached" : "**missed**");
  (void)std::fflush(stdout);
}

}  // namespace kiosk::bench
