#pragma once

#include "json/value.h"

namespace kiosk::portal {

// The sign-in methods in force, as stored by the last check-in; the default (both on, no hosts) when nothing readable
// is stored.
json::Value LoadSignIn();

}  // namespace kiosk::portal
