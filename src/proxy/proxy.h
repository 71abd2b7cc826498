// Windows' default proxy for services (WinHTTP): the command "proxy.set", and the computer's own setting given back.
#pragma once

#include "command/request.h"

namespace kiosk::proxy {

// Sets the default proxy as the request says, reads it back, and echoes the request's settings. Before the computer's
// own setting is replaced for the first time it is recorded ("PriorWinHttpSettings"); what the service set is recorded
// as "AppliedProxy". Errors: "invalid", and "failed" with the setting from before in force again, if that could be
// done.
json::Value ProxySet(const command::Request& request);

// Puts the computer's own setting back, if it was replaced and nobody has set another since, and deletes the records.
// False when that failed twice: they stay, so that it can be tried again.
[[nodiscard]] bool RestoreProxy();

}  // namespace kiosk::proxy
