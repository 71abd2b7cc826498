#include "updates/stored_policy.h"

#include "state/stored_json.h"

namespace kiosk::updates {

bool LoadUpdatesPolicy(UpdatesPolicy& policy) {
  return ParseUpdatesPolicy(state::LoadJson(state::kUpdatesPolicy), policy);
}

}  // namespace kiosk::updates
