// Windows' event log: what was written to it is kept, the oldest first.
#pragma once

#include "sim/machine.h"

#include <string>
#include <vector>

namespace sim {

// "NorvaneKiosk warning 210 [WinHTTP error 12029]": source, type, the number that the event viewer shows, and what was
// inserted. In UTF-8.
std::vector<std::string> EventLogEntries();

// Their numbers alone: "100 200 201".
std::string EventLogNumbers();

struct EventLogFaults {
  Field<> error{L"EventLog", L"Error"};  // of each entry
  Field<> takes{L"EventLog", L"Takes"};  // ms for each entry
};
inline const EventLogFaults eventLog;

}  // namespace sim
