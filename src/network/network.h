// The command "net.set", and the promises that a change is made whole or not at all, and stays only when the portal can
// be reached over it.
#pragma once

#include "command/request.h"

namespace kiosk::network {

// Sets one wired or Wi-Fi adapter as `request` says and answers what Windows then tells of it. The settings from before
// are on record while the change is under way; they are put back when a step fails or the result does not show within
// 10 s. Afterwards they stay on record until the portal has answered (network/trial.h), unless the request says "keep"
// or the terminal is not enrolled. A second one waits for the first. Ends early on a
// stop, with the record left.
json::Value NetSet(const command::Request& request);

// Puts back what a stop, a kill or a power cut left half done, and what the portal did not answer over for 5 minutes.
// True when no record is left. At once when there is none or while a change is under way. The worker, at each pass.
bool SettleChanges();

// For the end of kiosk mode: a change that was made stays, proven or not, and what is half done is put back. False when
// that must be tried again. An adapter that is gone is not waited for.
bool EndChanges();

}  // namespace kiosk::network
