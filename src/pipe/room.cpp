#include "pipe/room.h"

#include "win32/lock.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kiosk::pipe {
namespace {

constexpr std::size_t kPlaces = 40;

struct Waiting {
  DWORD session = 0;
  DWORD process = 0;
  HANDLE end = nullptr;
};

win32::Lock lock{win32::LockRank::kLeaf};
// In the order in which they came; one more than there are places for the moment in which somebody has to go.
std::array<Waiting, kPlaces + 1> places GUARDED_BY(lock);
std::size_t taken GUARDED_BY(lock) = 0;

Waiting* End() noexcept REQUIRES(lock) { return places.data() + taken; }

void Remove(Waiting* place) noexcept REQUIRES(lock) {
  std::move(place + 1, End(), place);
  --taken;
}

// Who has the most: first by session, within one by process. Of equals the first, which is the oldest.
Waiting* Greediest() noexcept REQUIRES(lock) {
  const auto count = [first = places.data(), end = End()](auto same) { return std::count_if(first, end, same); };
  Waiting* greediest = places.data();
  std::ptrdiff_t mostOfSession = 0;
  std::ptrdiff_t mostOfProcess = 0;
  for (Waiting* each = places.data(); each != End(); ++each) {
    const auto session = count([each](const Waiting& other) { return other.session == each->session; });
    const auto process = count(
        [each](const Waiting& other) { return other.session == each->session && other.process == each->process; });
    if (session > mostOfSession || (session == mostOfSession && process > mostOfProcess)) {
      greediest = each;
      mostOfSession = session;
      mostOfProcess = process;
    }
  }
  return greediest;
}

}  // namespace

Place::Place(DWORD session, DWORD process)
    : session_(session), process_(process), end_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  Return();
}

bool Place::Leave() noexcept {
  const win32::LockGuard guard(lock);
  Waiting* const mine =
      std::find_if(places.data(), End(), [this](const Waiting& each) { return each.end == end_.Get(); });
  const bool present = mine != End();
  if (present) {
    Remove(mine);
  }
  return present;
}

void Place::Return() noexcept {
  const win32::LockGuard guard(lock);
  places[taken++] = {session_, process_, end_.Get()};
  if (taken > kPlaces) {
    Waiting* const greediest = Greediest();
    SetEvent(greediest->end);
    Remove(greediest);
  }
}

}  // namespace kiosk::pipe
