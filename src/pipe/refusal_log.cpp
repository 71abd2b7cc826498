#include "pipe/refusal_log.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/lock.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kiosk::pipe {
namespace {

constexpr std::uint64_t kMinute = 60'000;
constexpr unsigned long kLoggedInAMinute = 10;
constexpr std::size_t kReasons = 64;
// Stands for all beyond that many.
constexpr char kOthers[] = "one of many other programs";

struct Refusal {
  std::string reason;
  std::uint64_t since;
  unsigned long count;
};

win32::Lock lock{win32::LockRank::kLeaf};
// Of the present minute of each reason. Never destroyed: connection threads may outlive main.
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
      log::Log(log::kWarn, log::kKiosk, "caller refused: %s (%lu more times within a minute)", each.reason.c_str(),
               each.count - kLoggedInAMinute);
    }
    return over;
  });
  anyRefused = !Refusals().empty();
}

}  // namespace

void LogRefusal(const std::string& reason) {
  const win32::LockGuard guard(lock);
  Tell(false);
  std::vector<Refusal>& refusals = Refusals();
  const auto find = [&](const std::string& wanted) {
    return std::find_if(refusals.begin(), refusals.end(), [&](const auto& each) { return each.reason == wanted; });
  };
  auto known = find(reason);
  const bool room = refusals.size() < kReasons;
  if (known == refusals.end() && !room) {
    known = find(kOthers);
  }
  if (known == refusals.end()) {
    refusals.push_back({room ? reason : kOthers, win32::TickCount(), 0});
    known = refusals.end() - 1;
    anyRefused = true;
  }
  if (++known->count <= kLoggedInAMinute) {
    log::Log(log::kWarn, log::kKiosk, "caller refused: %s", reason.c_str());
  }
}

void TellCountedRefusals(bool all) {
  if (anyRefused) {
    const win32::LockGuard guard(lock);
    Tell(all);
  }
}

}  // namespace kiosk::pipe
