// The central log shipper, as the log sees it: sends every log line as a GELF record to the central endpoint, and keeps
// what cannot be sent in `<log root>\Drop`. Off unless the settings name an endpoint.
//
// The thread of sender.cpp does all the work. It never logs through the log call, only to local files.
#pragma once

#include "log/identity.h"

#include <string_view>

namespace kiosk::log::shipper {

// Called once while logging is initialised, after its folders exist. `spoolUsable`: the log tree is secured, so that
// lines may be kept in it. True when lines will be shipped. Waits for nothing.
bool Start(const Identity& identity, bool spoolUsable);

// The log tree could be secured later: lines may be kept in it from now on. Any thread, once.
void UseSpool() noexcept;

// Why nothing is shipped although the settings name an endpoint; empty otherwise.
const char* Problem() noexcept;

// Takes a line over: a copy under a lock, and now and then an event. Never waits for files or the network, allocates
// nothing and never fails; when 1024 lines wait, the oldest is lost and counted. `component` and `message` of any
// length are cut to 63 and 2047 bytes.
void HandOff(int level, const char* component, std::string_view message) noexcept;

// No request begins any more, and what was not sent goes to the spool; returns within `milliseconds`, whatever the
// network does. Later lines are not shipped. Only the first call does anything.
void Stop(unsigned milliseconds) noexcept;

}  // namespace kiosk::log::shipper
