// Windows' default proxy for services (WinHTTP): the command "proxy.set", and the computer's own setting given back.
#pragma once

#include "command/request.h"

namespace kiosk::proxy {

// Sets the default proxy as `request` says, reads it back, and echoes the request's settings. The computer's own
// setting is on record before it is replaced for the first time.
json::Value ProxySet(const command::Request& request);

// Puts the computer's own setting back, if it was replaced and nobody has set another since.
void RestoreProxy();

}  // namespace kiosk::proxy
