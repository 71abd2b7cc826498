#include "updates/updates_policy_store.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::updates {

bool LoadUpdatesPolicy(UpdatesPolicy& policy) {
  const auto stored = json::ParseStored(win32::ToNarrow(state::ReadStateString(state::kUpdatesPolicy)));
  return stored && ParseUpdatesPolicy(*stored, policy);
}

void ApplyPortalUpdatesPolicy(const json::Value& reply) {
  UpdatesPolicy policy;
  if (!ParseUpdatesPolicy(json::Member(reply, "updates"), policy)) {
    return;
  }
  const std::string text = json::Serialise(UpdatesPolicyToJson(policy));
  if (state::SetStateStringIfChanged(state::kUpdatesPolicy, win32::ToWide(text))) {
    log::Log(log::kNotice, log::kKiosk, "os updates: the portal's policy is now %s", text.c_str());
  }
  const std::string& source = json::Member(reply, "updatesSource").text();
  const bool known = source == "device" || source == "tenant" || source == "default";
  state::SetStateStringIfChanged(state::kUpdatesSource, known ? win32::ToWide(source) : std::wstring());
}

}  // namespace kiosk::updates
