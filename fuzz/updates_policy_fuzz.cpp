// A policy is taken exactly when another library's reading of it has every member right. What is taken comes back from
// its own text, and leaves active hours that Windows takes.
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "updates/updates_policy.h"

namespace {

using kiosk::updates::UpdatesPolicy;

std::string Text(const UpdatesPolicy& policy) {
  return kiosk::json::Serialise(kiosk::updates::UpdatesPolicyToJson(policy));
}

void RequireAsThePeer(const Peer& peer, bool taken, const UpdatesPolicy& policy) {
  const Peer window = MemberOf(peer, "window");
  const Peer automatic = MemberOf(peer, "automatic");
  const std::int64_t start = ClockTime(MemberOf(window, "start"));
  const std::int64_t end = ClockTime(MemberOf(window, "end"));
  const std::int64_t days = Days(MemberOf(window, "days"));
  Require(taken == (automatic.is_boolean() && start >= 0 && end >= 0 && start != end && days > 0));
  Require(!taken || (policy.automatic == automatic.get<bool>() && policy.start == start && policy.end == end &&
                     policy.days == days));
}

void RequireSane(const UpdatesPolicy& policy) {
  UpdatesPolicy second;
  const auto again = kiosk::json::Parse(Text(policy));
  Require(again && kiosk::updates::ParseUpdatesPolicy(*again, second) && second == policy);
  const auto hours = kiosk::updates::ActiveHoursAround(policy);
  Require(hours.start < 24 && hours.end < 24 && (hours.end + 24 - hours.start) % 24 <= 18);
}

void Check(std::string_view text) {
  const auto value = kiosk::json::Parse(text);
  if (!value) {
    return;
  }
  const UpdatesPolicy before{true, 1, 2, 3};
  UpdatesPolicy policy = before;
  const bool taken = kiosk::updates::ParseUpdatesPolicy(*value, policy);
  if (const Peer peer = Peer::parse(text, nullptr, false); !peer.is_discarded()) {
    RequireAsThePeer(peer, taken, policy);
  }
  Require(taken || policy == before);
  RequireSane(policy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  if (size >= 6) {  // any record there may be
    const UpdatesPolicy policy = {(data[0] & 1) != 0, (data[1] * 256U + data[2]) % 1440,
                                  (data[3] * 256U + data[4]) % 1440, data[5] % 127U + 1};
    if (policy.start != policy.end) {
      RequireSane(policy);
    }
  }
  return 0;
}
