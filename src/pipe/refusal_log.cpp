#include "pipe/refusal_log.h"

#include "win32/clock.h"
#include "win32/lock.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace kiosk::pipe {
namespace {

constexpr std::uint64_t kMinute = 60'000;
constexpr unsigned long kLoggedInAMinute = 10;
constexpr std::size_t kLines = 64;
constexpr std::size_t kLongest = 2048;  // bytes of a line, which the log would cut as well
// Stand for all beyond that many. Whoever gives his program many names thus hides other callers, but no commands.
constexpr char kOtherCallers[] = "caller refused: one of many other programs";
constexpr char kOtherCommands[] = "a command refused: one of many others";

struct Refusal {
  std::string line;
  std::uint64_t since;
  unsigned long count;
};

win32::Lock lock{win32::LockRank::kLeaf};
// Of the present minute of each line. Never destroyed: connection threads may outlive main.
std::vector<Refusal>& Refusals() REQUIRES(lock) {
  static auto* const refusals = new std::vector<Refusal>;
  return *refusals;
}

// Whether there is any: who tells of them asks with each connection, and hardly ever needs the lock.
std::atomic<bool> anyRefused{false};

void Tell(bool all) REQUIRES(lock) {
  const std::uint64_t now = win32::TickCount();
  std::erase_if(Refusals(), [&](const Refusal& each) {
    const bool over = all || now - each.since >= kMinute;
    if (over && each.count > kLoggedInAMinute) {
      log::Log(log::kWarn, log::kKiosk, "%s (%lu more times within a minute)", each.line.c_str(),
               each.count - kLoggedInAMinute);
    }
    return over;
  });
  anyRefused = !Refusals().empty();
}

}  // namespace

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style by contract, and checked as such at each call
void LogRefusal(const char* format, ...) {
  char text[kLongest];
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(std::vsnprintf(text, sizeof(text), format, arguments));
  va_end(arguments);
  const std::string line = text;
  const win32::LockGuard guard(lock);
  Tell(false);
  std::vector<Refusal>& refusals = Refusals();
  const auto find = [&](const std::string& wanted) {
    return std::find_if(refusals.begin(), refusals.end(), [&](const auto& each) { return each.line == wanted; });
  };
  std::string counted = line;
  auto known = find(counted);
  if (known == refusals.end() && refusals.size() >= kLines) {
    counted = line.starts_with("caller refused: ") ? kOtherCallers : kOtherCommands;
    known = find(counted);
  }
  if (known == refusals.end()) {
    refusals.push_back({counted, win32::TickCount(), 0});
    known = refusals.end() - 1;
    anyRefused = true;
  }
  if (++known->count <= kLoggedInAMinute) {
    log::Log(log::kWarn, log::kKiosk, "%s", line.c_str());
  }
}

void TellCountedRefusals(bool all) {
  if (anyRefused) {
    const win32::LockGuard guard(lock);
    Tell(all);
  }
}

}  // namespace kiosk::pipe
