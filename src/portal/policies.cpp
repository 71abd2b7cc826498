#include "portal/policies.h"

#include "json/serialise.h"
#include "log/log.h"
#include "power/power_policy.h"
#include "state/kiosk_state.h"
#include "updates/updates_policy.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::portal {
namespace {

void Store(const char* area, const json::Value& policy, const state::StateValue& value, const json::Value& source,
           const state::StateValue& sourceValue) {
  const std::string text = json::Serialise(policy);
  if (state::SetStateStringIfChanged(value, win32::ToWide(text))) {
    log::Log(log::kNotice, log::kKiosk, "%s: the portal's policy is now %s", area, text.c_str());
  }
  const std::string& from = source.text();
  const bool known = from == "device" || from == "tenant" || from == "default";
  state::SetStateStringIfChanged(sourceValue, known ? win32::ToWide(from) : std::wstring());
}

}  // namespace

void StorePolicies(const json::Value& reply) {
  if (power::PowerPolicy policy; power::ParsePowerPolicy(json::Member(reply, "power"), policy)) {
    Store("power", power::PowerPolicyToJson(policy), state::kPowerPolicy, json::Member(reply, "powerSource"),
          state::kPowerSource);
  }
  if (updates::UpdatesPolicy policy; updates::ParseUpdatesPolicy(json::Member(reply, "updates"), policy)) {
    Store("os updates", updates::UpdatesPolicyToJson(policy), state::kUpdatesPolicy,
          json::Member(reply, "updatesSource"), state::kUpdatesSource);
  }
}

}  // namespace kiosk::portal
