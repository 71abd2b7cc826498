// Who writes these logs: read once when logging starts.
#pragma once

#include <string>

namespace kiosk::log {

// UTF-8, each "unknown" when it cannot be read.
struct Identity {
  std::string host;     // computer name, at most 128 bytes
  std::string machine;  // MachineGuid of Windows, at most 64
  std::string tenant;   // settings value "TenantId", at most 64
  std::string site;     // settings value "Site", at most 64
  std::string install;  // identifier of this installation, kept in the log root; empty when it cannot be kept
};

// Reads all but `install`.
Identity ReadIdentity();

// The identifier in `<root>\client_uuid.txt`, made anew (a random UUID) when it is missing or damaged; processes that
// begin together have the same. Empty when it cannot be read, and then it stays as it is, or not be written.
std::string LoadOrCreateInstallId(const wchar_t* root);

}  // namespace kiosk::log
