// How people may sign in at the kiosk, as the portal decides it. Portable: no Windows here.
#pragma once

#include "json/value.h"

namespace kiosk::portal {

// The fixed shape of a sign-in policy, made of whatever the portal sent: {"microsoft": bool, "email": bool,
// "extraHosts": [at most 10 host names in lower case]}. Both methods are allowed unless the portal switches them off
// explicitly; a value that is no object gives the default (both on, no hosts).
json::Value NormaliseSignIn(const json::Value& portal);

}  // namespace kiosk::portal
