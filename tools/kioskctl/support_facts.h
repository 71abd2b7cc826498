// What a support bundle says about this computer. Every function asks Windows, never the service, so it answers while
// the service is dead or hangs; what cannot be read is said so in the text. UTF-8, one fact a line.
#pragma once

#include <string>
#include <vector>

namespace kioskctl {

std::string ComputerFacts();     // Windows, time, room on the disk
std::string ServiceFacts();      // what the service manager knows of the service
std::string StateFacts();        // the service's registry key; secrets are named, not shown
std::string SettingsFacts();     // what an administrator or Windows has set that the service reads or changes
std::string TaskFacts();         // the sleep and wake tasks as Task Scheduler has them
std::string ProxyFacts();        // the WinHTTP default proxy
std::string CertificateFacts();  // the service's signature; the client certificate of central logging
std::string FolderFacts();       // owners and permissions of the folders

// The text with the numbers of each account's SID taken out.
std::string WithoutSids(const std::string& text);

// The newest log files, newest first, together at most `budget` bytes (the newest one always), as full paths.
std::vector<std::wstring> NewestLogs(unsigned long long budget);

}  // namespace kioskctl
