// The command "net.set", and the promises that a change is made whole or not at all, and stays only when the portal can
// be reached over it.
#pragma once

#include "command/request.h"

namespace kiosk::network {

// Sets one wired or Wi-Fi adapter as the request says and replies what Windows then tells of it. The settings from
// before are on record (network/change_record.h) while the change is under way; they are put back when a step fails or
// the result does not show within 10 s. Afterwards they stay on record until the portal has answered (network/trial.h),
// unless the request says "keep" or the terminal is not enrolled. Errors: "invalid", "unknown_adapter", "failed". A
// second one waits for the first. Ends early on a stop, with the record left.
json::Value NetSet(const command::Request& request);

// Puts back what a stop, a kill or a power cut left half done, and a change over which the portal did not answer for 5
// minutes. True when no record is left. Returns at once when there is none, or while a change is under way. The worker
// calls it at each pass.
bool SettleChanges();

// For the end of kiosk mode: a change that was made stays, proven or not, and one that is half done is undone. False
// when that must be tried again; an adapter that is gone is no reason to.
bool EndChanges();

}  // namespace kiosk::network
