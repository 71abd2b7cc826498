#include "pipe/room.h"

#include <gtest/gtest.h>

#include <iterator>
#include <list>
#include <utility>
#include <vector>

namespace kiosk::pipe {
namespace {

TEST(Room, WhoConnectsTheMostMakesRoom) {
  // Who goes: session and process of those who are there, in the order in which they came, and the place of the one.
  const struct {
    std::vector<std::pair<DWORD, DWORD>> groups;  // each as often as makes 40 in all with equal shares
    DWORD session, process;                       // of who comes then
    std::size_t goes;
  } cases[] = {{{{1, 1}}, 2, 2, 0},
               {{{1, 1}, {2, 2}}, 2, 2, 20},                  // the newcomer counts
               {{{1, 1}, {2, 2}}, 3, 3, 0},                   // of equals the oldest
               {{{1, 1}, {2, 2}, {2, 3}, {2, 3}}, 9, 9, 20},  // the session first, then its process
               {{{7, 1}, {8, 1}, {8, 2}, {7, 1}}, 8, 2, 20}};
  for (const auto& each : cases) {
    std::list<Place> places;
    const std::size_t share = 40 / each.groups.size();
    for (const auto& [session, process] : each.groups) {
      for (std::size_t i = 0; i < share; ++i) {
        EXPECT_FALSE(places.emplace_back(session, process).Ended());
      }
    }
    places.emplace_back(each.session, each.process);
    std::size_t position = 0;
    for (Place& place : places) {
      EXPECT_EQ(place.Ended(), position == each.goes) << position;
      EXPECT_EQ(place.Leave(), position++ != each.goes);
    }
  }
}

TEST(Room, WhoseRequestIsCarriedOutIsNotEndedAndThenCountsAsTheLast) {
  std::list<Place> places;
  for (int i = 0; i < 40; ++i) {
    places.emplace_back(1, 1);
  }
  Place& answered = places.front();
  Place& second = *std::next(places.begin());
  EXPECT_TRUE(answered.Leave());
  places.emplace_back(1, 1);
  EXPECT_FALSE(answered.Ended() || second.Ended());
  answered.Return();
  EXPECT_TRUE(second.Ended());
  EXPECT_FALSE(answered.Ended());
  EXPECT_TRUE(answered.Leave());
}

}  // namespace
}  // namespace kiosk::pipe
