// Registry keys of the computer's that the service has to make because a value of its own goes into them, and that go
// with that value.
#pragma once

#include "state/state_values.h"

#include <initializer_list>

namespace kiosk::state {

// Notes in `note`, in place of what stood there, every level of the keys (below HKLM) that is missing now. Called
// before the first value is written; the caller flushes. False when it could not be noted.
bool NoteMissingKeys(const StateValue& note, std::initializer_list<const wchar_t*> keys);

// Deletes the keys that were noted, the deepest first, as far as they have neither values nor subkeys by now; then the
// note. One that somebody uses, or that cannot be deleted, stays for good. Nothing when the note cannot be read.
void DeleteMadeKeys(const StateValue& note);

}  // namespace kiosk::state
