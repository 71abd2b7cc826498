#include "portal/sign_in_store.h"

#include "json/parse.h"
#include "portal/sign_in_methods.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

namespace kiosk::portal {

json::Value LoadSignIn() {
  // Normalised once more: an administrator may have written there.
  return NormaliseSignIn(
      json::ParseStored(win32::ToNarrow(state::ReadStateString(state::kSignIn))).value_or(json::Value()));
}

}  // namespace kiosk::portal
