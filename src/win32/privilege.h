#pragma once

namespace kiosk::win32 {

// Enables a privilege ("SeBackupPrivilege") in the token of this process; it stays enabled. False also when the token
// does not hold it; the last error says why.
bool EnablePrivilege(const wchar_t* name) noexcept;

}  // namespace kiosk::win32
