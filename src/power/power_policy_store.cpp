#include "power/power_policy_store.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

#include <optional>

namespace kiosk::power {

bool LoadPowerPolicy(const state::StateValue& value, PowerPolicy& policy) {
  const std::optional<json::Value> stored = json::ParseStored(win32::ToNarrow(state::ReadStateString(value)));
  return stored && ParsePowerPolicy(*stored, policy);
}

bool LoadEffectivePowerPolicy(PowerPolicy& policy) {
  return LoadPowerPolicy(state::kPowerLocal, policy) || LoadPowerPolicy(state::kPowerPolicy, policy);
}

std::string PowerPolicyText(const PowerPolicy& policy) { return json::Serialise(PowerPolicyToJson(policy)); }

void ApplyPortalPowerPolicy(const json::Value& reply) {
  PowerPolicy policy;
  if (!ParsePowerPolicy(json::Member(reply, "power"), policy)) {
    return;
  }
  const std::string text = PowerPolicyText(policy);
  if (state::SetStateStringIfChanged(state::kPowerPolicy, win32::ToWide(text))) {
    log::Log(log::kNotice, log::kKiosk, "power: the portal's policy is now %s", text.c_str());
  }
  const std::string& source = json::Member(reply, "powerSource").text();
  const bool known = source == "device" || source == "tenant" || source == "default";
  state::SetStateStringIfChanged(state::kPowerSource, known ? win32::ToWide(source) : std::wstring());
}

}  // namespace kiosk::power
