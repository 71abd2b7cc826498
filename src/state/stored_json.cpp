#include "state/stored_json.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

namespace kiosk::state {

json::Value LoadJson(const StateValue& value) {
  json::Value content;
  LoadJson(value, content);
  return content;
}

bool LoadJson(const StateValue& value, json::Value& content) {
  RawValue raw;
  const bool known = ReadKnownState(value, raw);
  content = json::ParseStored(win32::ToNarrow(raw.Text().value_or(L""))).value_or(json::Value());
  return known;
}

bool StoreJson(const StateValue& value, const json::Value& content) {
  return WriteStateString(value, win32::ToWide(json::Serialise(content)));
}

}  // namespace kiosk::state
