// How each kind of change is put back. All may be repeated, and find nothing to do where a change was never made.
#pragma once

#include "json/value.h"

#include <string>
#include <string_view>

namespace proof {

// True when it is as before. `name` is the entry's.
using Undo = bool (*)(const kiosk::json::Value& entry, const std::wstring& name);

// Null for a kind that there is not.
Undo FindUndo(std::string_view kind) noexcept;

}  // namespace proof
