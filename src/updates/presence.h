// Whether somebody is using the terminal right now.
#pragma once

#include "command/request.h"

#include <string>

namespace kiosk::updates {

// "session.report" of the kiosk shell: who is at the terminal. Answers "invalid" to anything but booleans.
json::Value SessionReport(const command::Request& request);

// Why updates must not run and the computer must not restart now; empty when they may. A report counts for 150 s and as
// long as its session is the kiosk account's.
std::string DeferralReason();

}  // namespace kiosk::updates
