// Restarts of the simulated machine: nothing restarts, the request is kept (area "Shutdown").
#pragma once

#include "sim/machine.h"

#include <optional>
#include <string>

namespace sim {

struct ShutdownRequest {
  std::wstring message;
  DWORD timeout;  // seconds
  bool forceAppsClosed;
  bool restart;
  DWORD reason;
};

// The request that is under way. Another one fails until it is forgotten.
std::optional<ShutdownRequest> PendingShutdown();
void ForgetShutdown();
// So many requests fail with ERROR_NOT_READY, as they may while nobody is signed in, or while somebody is signing in.
inline const Field<> shutdownNotReady{L"", L"ShutdownNotReady"};

// Whether this process has enabled the privilege (SE_..._NAME) through AdjustTokenPrivileges.
bool PrivilegeEnabled(const wchar_t* name);

}  // namespace sim
