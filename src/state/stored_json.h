// Values of the state key that hold JSON.
#pragma once

#include "json/value.h"
#include "state/state_values.h"

namespace kiosk::state {

// Null when the value is absent, of another type than text, or no JSON that could be written back.
json::Value LoadJson(const StateValue& value);

// The same for whom it makes a difference whether there is none: false when nobody knows what stands there.
bool LoadJson(const StateValue& value, json::Value& content);

// Writes it in compact form. False when that failed; the key is never created.
bool StoreJson(const StateValue& value, const json::Value& content);

}  // namespace kiosk::state
