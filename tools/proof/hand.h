// What the kit does in one way on a real Windows and in another on the simulated one.
#pragma once

#include "json/value.h"
#include "tools/kioskctl/pipe_client.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace proof::hand {

// What this computer is, as far as it decides whether the kit may begin.
struct Traits {
  DWORD noRights = ERROR_SUCCESS;  // why whoever runs this must not make services
  bool inDomain = false;
  bool managed = false;
  bool battery = false;
  bool isVirtual = false;
  bool desktop = false;  // of this process
};
Traits LookAround();

// A line for each user ("user NAME SID ..."), membership ("member GROUPSID SID"), name of a private secret of the local
// security authority ("secret NAME"), task of the root folder, power scheme and adapter, and for each folder of a user.
std::vector<std::string> WorldLines();

// Asks the service as somebody who is signed in interactively and is not the kiosk account.
kioskctl::Answer AskAsPerson(const kiosk::json::Value& request);

// Asks as the kiosk account in its own session; whether the service answered "ok". Empty: it has no session.
std::optional<bool> AskAsKiosk(const kiosk::json::Value& request);

// Asks as LocalSystem, which is not signed in interactively. Empty: nobody here is.
std::optional<kioskctl::Answer> AskAsSystem(const kiosk::json::Value& request);

// A plain user of the kit's own, whose rights Windows judges.
inline constexpr wchar_t kPerson[] = L"NorvaneProofPerson";
// Does it as that user, signed in interactively or as from the network. False when there is nobody who could.
bool AsSecondUser(bool interactive, const std::function<void()>& action);

// The computer restarts, because the product asked for it or because this does. True once Windows is up again; a real
// Windows ends this process first, and the agent goes on by itself. False when no restart came.
bool Restart(bool byProduct);

}  // namespace proof::hand
