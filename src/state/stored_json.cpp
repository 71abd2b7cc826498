#include "state/stored_json.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

namespace kiosk::state {

json::Value LoadJson(const StateValue& value) {
  return json::ParseStored(win32::ToNarrow(ReadStateString(value))).value_or(json::Value());
}

bool StoreJson(const StateValue& value, const json::Value& content) {
  return WriteStateString(value, win32::ToWide(json::Serialise(content)));
}

}  // namespace kiosk::state
