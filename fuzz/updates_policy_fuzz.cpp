#include "json/parse.h"
#include "json/serialise.h"
#include "updates/updates_policy.h"
#include "updates/window_key.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using kiosk::updates::UpdatesPolicy;

void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

std::string Text(const UpdatesPolicy& policy) {
  return kiosk::json::Serialise(kiosk::updates::UpdatesPolicyToJson(policy));
}

// The policy's text, parsed as the registry's is.
UpdatesPolicy Again(const std::string& text) {
  UpdatesPolicy policy;
  const auto value = kiosk::json::Parse(text);
  Require(value && kiosk::updates::ParseUpdatesPolicy(*value, policy));
  return policy;
}

void RequireSane(const UpdatesPolicy& policy) {
  Require(policy.start < 1440 && policy.end < 1440 && policy.start != policy.end);
  Require(policy.days != 0 && policy.days < 128);
  Require(Again(Text(policy)) == policy && Text(Again(Text(policy))) == Text(policy));
  const auto hours = kiosk::updates::ActiveHoursAround(policy);
  Require(hours.start < 24 && hours.end < 24 && (hours.end + 24 - hours.start) % 24 <= 18);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // As text from outside, and as any record there may be.
  UpdatesPolicy policy;
  const auto value = kiosk::json::Parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (value && kiosk::updates::ParseUpdatesPolicy(*value, policy)) {
    RequireSane(policy);
  } else {
    Require(policy == UpdatesPolicy());
  }
  if (size >= 6) {
    policy = {(data[0] & 1) != 0, (data[1] * 256U + data[2]) % 1440, (data[3] * 256U + data[4]) % 1440,
              data[5] % 127U + 1};
    if (policy.start != policy.end) {
      RequireSane(policy);
    }
  }
  return 0;
}
