#pragma once

#include <string>

#include "json/value.h"

namespace kiosk::json {

// Compact JSON text without white space, members in their order. Numbers keep six significant digits unless they are
// whole; bytes of 0x20 and above are copied, so the text is UTF-8 when the value's texts are.
std::string Serialise(const Value& value);

}  // namespace kiosk::json
