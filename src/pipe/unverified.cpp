#include "pipe/unverified.h"

#include "win32/lock.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kiosk::pipe {
namespace {

constexpr std::size_t kPlaces = 64;

struct Place {
  DWORD session = 0;
  DWORD process = 0;
  HANDLE end = nullptr;
};

win32::Lock lock{win32::LockRank::kLeaf};
// In the order in which they came; one more than there are places for the moment in which somebody has to go.
std::array<Place, kPlaces + 1> places GUARDED_BY(lock);
std::size_t taken GUARDED_BY(lock) = 0;

Place* End() noexcept REQUIRES(lock) { return places.data() + taken; }

void Remove(Place* place) noexcept REQUIRES(lock) {
  std::move(place + 1, End(), place);
  --taken;
}

// Who has the most: first by session, within one by process. Of equals the first, which is the oldest.
Place* Greediest() noexcept REQUIRES(lock) {
  const auto count = [first = places.data(), end = End()](auto same) { return std::count_if(first, end, same); };
  Place* greediest = places.data();
  std::ptrdiff_t mostOfSession = 0;
  std::ptrdiff_t mostOfProcess = 0;
  for (Place* each = places.data(); each != End(); ++each) {
    const auto session = count([each](const Place& other) { return other.session == each->session; });
    const auto process =
        count([each](const Place& other) { return other.session == each->session && other.process == each->process; });
    if (session > mostOfSession || (session == mostOfSession && process > mostOfProcess)) {
      greediest = each;
      mostOfSession = session;
      mostOfProcess = process;
    }
  }
  return greediest;
}

}  // namespace

Unverified::Unverified(DWORD session, DWORD process) : end_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  const win32::LockGuard guard(lock);
  places[taken++] = {session, process, end_.Get()};
  if (taken > kPlaces) {
    Place* const greediest = Greediest();
    SetEvent(greediest->end);
    Remove(greediest);
  }
}

bool Unverified::Leave() noexcept {
  const win32::LockGuard guard(lock);
  Place* const mine = std::find_if(places.data(), End(), [this](const Place& each) { return each.end == end_.Get(); });
  const bool present = mine != End();
  if (present) {
    Remove(mine);
  }
  return present;
}

}  // namespace kiosk::pipe
