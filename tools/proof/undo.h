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

// Stops a service, waiting for its process to end, and deletes it. True when it is not there any more.
bool EndService(const wchar_t* name);
// Deletes it without stopping it: it is gone once it has stopped.
void MarkServiceToGo(const wchar_t* name);

}  // namespace proof
