#include "power/power_policy_store.h"

#include "json/serialise.h"
#include "state/stored_json.h"

namespace kiosk::power {

bool LoadPowerPolicy(const state::StateValue& value, PowerPolicy& policy) {
  return ParsePowerPolicy(state::LoadJson(value), policy);
}

bool LoadEffectivePowerPolicy(PowerPolicy& policy) {
  return LoadPowerPolicy(state::kPowerLocal, policy) || LoadPowerPolicy(state::kPowerPolicy, policy);
}

std::string PowerPolicyText(const PowerPolicy& policy) { return json::Serialise(PowerPolicyToJson(policy)); }

}  // namespace kiosk::power
