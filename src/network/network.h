// The command "net.set", and the promise that a change is made whole or not at all.
#pragma once

#include "json/reply.h"

namespace kiosk::network {

// Sets one wired or Wi-Fi adapter as `request` says and answers what Windows then tells of it. The settings from before
// are on record while the change is under way; they are put back when a step fails or the result does not show within
// 10 s. Runs on a connection's thread; a second one waits for the first. Ends early on a stop, with the record left.
json::Value NetSet(const json::Value& request);

// Puts back the settings on record of changes that a stop, a kill or a power cut left unfinished. At once when there
// are none or while a change is under way. True when no record is left. Any thread.
bool PutBackUnfinishedChanges();

}  // namespace kiosk::network
