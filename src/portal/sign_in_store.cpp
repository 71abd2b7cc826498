#include "portal/sign_in_store.h"

#include "portal/sign_in_methods.h"
#include "state/stored_json.h"

namespace kiosk::portal {

json::Value LoadSignIn() {
  // Normalised once more: an administrator may have written there.
  return NormaliseSignIn(state::LoadJson(state::kSignIn));
}

}  // namespace kiosk::portal
