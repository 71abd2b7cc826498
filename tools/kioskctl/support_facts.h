// What a support bundle says about this computer. Every function but StatusFacts asks Windows, never the service, so it
// answers while the service is dead or hangs; what cannot be read is said so in the text. UTF-8, one fact a line. Names
// of users stand in it as Windows has them: whoever writes it down takes them out.
#pragma once

#include "win32/winapi.h"

#include <cstdint>
#include <string>

namespace kioskctl {

std::string ComputerFacts();     // versions, edition and build of Windows, time, room on the disk
std::string ServiceFacts();      // what the service manager knows of the service
std::string StatusFacts();       // the service's own answer, if it runs
std::string EventFacts();        // what the event logs have about the service and the computer's own life
std::string SessionFacts();      // who is signed in where
std::string StateFacts();        // the service's registry key; secrets are named, not shown
std::string SettingsFacts();     // what an administrator or Windows has set that the service reads or changes
std::string TaskFacts();         // the sleep and wake tasks as Task Scheduler has them
std::string NetworkFacts();      // adapters with their addresses, and the WinHTTP default proxy
std::string CertificateFacts();  // the service's signature; the client certificate of central logging
std::string FolderFacts();       // owners and permissions of the folders
std::string FileFacts();         // logs, dumps, the spool and the branding, by name, size and time

// A record's source, number and texts on one line; empty when it is of no interest. More is in the log of the system.
std::string EventText(const EVENTLOGRECORD& record, bool ofSystem);

// "2026-11-21 09:00:00 UTC", of a time in 100 ns units since 1601.
std::string FileTimeText(std::uint64_t value);

}  // namespace kioskctl
