// Pairing the terminal with the portal through a code that a person enters there: the commands "pair.begin" and
// "pair.check".
#pragma once

#include "command/request.h"

namespace kiosk::portal {

// Asks the portal for a code, keeps it as the pending one and deletes "LastError". Reply: {"ok": true, "code": text,
// "expiresInSeconds": whole number}, or the error "already_enrolled", "unreachable" or "server_error".
json::Value PairBegin(const command::Request& request);

// Asks the portal whether the pending code was claimed; "code" must be that code (8 letters or digits; white space
// around it does not count). While a person has not entered it: {"ok": true, "paired": false}, with "error":
// "unreachable" when the portal gave no usable answer. Once claimed, the token is stored, one check-in runs, the kiosk
// account is set up and a restart scheduled: {"ok": true, "paired": true, "provisioned": true, "restarting": true,
// "restartInSeconds": 10}; or, when the portal does not recognise the fresh token yet, {"ok": true, "paired": true,
// "provisioned": false, "error": "unreachable"}. Errors: "unknown_code", "expired", "claimed", "server_error",
// "token_store_failed", "already_enrolled", "revoked", and the codes of account::ProvisionKioskAccount.
json::Value PairCheck(const command::Request& request);

}  // namespace kiosk::portal
