// A policy is taken exactly when another library's reading of it has every member right. What is taken comes back from
// its own text.
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "power/power_policy.h"

namespace {

using kiosk::power::PowerPolicy;

std::string Text(const PowerPolicy& policy) { return kiosk::json::Serialise(kiosk::power::PowerPolicyToJson(policy)); }

void RequireAsThePeer(const Peer& peer, bool taken, const PowerPolicy& policy) {
  const Peer schedule = MemberOf(peer, "schedule");
  const Peer enabled = MemberOf(schedule, "enabled");
  const std::int64_t read[] = {WholeNumber(MemberOf(peer, "screenOffMinutes"), 240),
                               WholeNumber(MemberOf(peer, "sleepMinutes"), 240),
                               ClockTime(MemberOf(schedule, "sleepAt")), ClockTime(MemberOf(schedule, "wakeAt")),
                               Days(MemberOf(schedule, "days"))};
  const bool right = *std::min_element(std::begin(read), std::end(read)) >= 0 && read[2] != read[3] &&
                     enabled.is_boolean() && (read[4] != 0 || !enabled.get<bool>());
  Require(taken == right);
  const std::int64_t ours[] = {policy.screenOffMinutes, policy.sleepMinutes, policy.schedule.sleepAt,
                               policy.schedule.wakeAt, policy.schedule.days};
  Require(!taken ||
          (std::equal(std::begin(read), std::end(read), ours) && policy.schedule.enabled == enabled.get<bool>()));
}

void Check(std::string_view text) {
  const auto value = kiosk::json::Parse(text);
  if (!value) {
    return;
  }
  const PowerPolicy before{7, 8, {true, 9, 10, 11}};
  PowerPolicy policy = before;
  const bool taken = kiosk::power::ParsePowerPolicy(*value, policy);
  if (const Peer peer = Peer::parse(text, nullptr, false); !peer.is_discarded()) {
    RequireAsThePeer(peer, taken, policy);
  }
  PowerPolicy second;
  const auto again = kiosk::json::Parse(Text(policy));
  Require(taken ? again && kiosk::power::ParsePowerPolicy(*again, second) && second == policy : policy == before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  return 0;
}
