// Every value of the Kiosk state key: its name and the registry type that is written (a reader accepts only that type).
// What each means, and who writes it, is in docs/registry.md. Absence is the normal way to say off, none or not set: a
// value is deleted rather than stored empty. Times are FILETIME values (100 ns units since 1601, UTC) in a REG_QWORD.
#pragma once

#include "win32/winapi.h"

namespace kiosk::state {

inline constexpr wchar_t kStateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Kiosk";

struct StateValue {
  const wchar_t* name;
  DWORD type;
};

// Of an administrator or a developer.
// Group policy's own AuthBaseUrl, which comes before that of the state key and outlasts it.
inline constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Norvane\\Tessaly\\Kiosk";
inline constexpr StateValue kAuthBaseUrl{L"AuthBaseUrl", REG_SZ};
inline constexpr StateValue kDevAllowUnsigned{L"DevAllowUnsigned", REG_DWORD};

// Enrolment.
inline constexpr StateValue kDeviceToken{L"DeviceToken", REG_BINARY};
inline constexpr StateValue kTerminalName{L"TerminalName", REG_SZ};
inline constexpr StateValue kSignIn{L"SignIn", REG_SZ};
inline constexpr StateValue kUnknownSince{L"UnknownSince", REG_QWORD};
inline constexpr StateValue kLastError{L"LastError", REG_SZ};
inline constexpr StateValue kToldTroubles{L"ToldTroubles", REG_DWORD};
inline constexpr StateValue kTeardownPending{L"TeardownPending", REG_DWORD};
inline constexpr StateValue kTeardownSuperseded{L"TeardownSuperseded", REG_DWORD};

// The kiosk account and maintenance.
inline constexpr StateValue kProvisioned{L"Provisioned", REG_DWORD};
inline constexpr StateValue kAccountSid{L"AccountSid", REG_SZ};
inline constexpr StateValue kAccountCreating{L"AccountCreating", REG_QWORD};
inline constexpr StateValue kStaleProfileSids{L"StaleProfileSids", REG_MULTI_SZ};
inline constexpr StateValue kMaintenance{L"Maintenance", REG_DWORD};
inline constexpr StateValue kMaintenanceAt{L"MaintenanceAt", REG_QWORD};
inline constexpr StateValue kMaintenanceFailures{L"MaintenanceFailures", REG_DWORD};
inline constexpr StateValue kMaintenanceLockedUntil{L"MaintenanceLockedUntil", REG_QWORD};

// The computer's sign-in settings. A copy has the type and the bytes of what it copies.
inline constexpr DWORD kTypeOfCopied = REG_NONE;
inline constexpr StateValue kOwnsAutoLogon{L"OwnsAutoLogon", REG_DWORD};
inline constexpr StateValue kAutoLogonDigest{L"AutoLogonDigest", REG_SZ};
inline constexpr StateValue kAutoLogonRestoring{L"AutoLogonRestoring", REG_DWORD};
inline constexpr StateValue kOwnsHideFastUserSwitching{L"OwnsHideFastUserSwitching", REG_DWORD};
inline constexpr StateValue kMadeSignInKeys{L"MadeSignInKeys", REG_SZ};
inline constexpr StateValue kPriorLsaSecret{L"PriorLsaSecret", REG_DWORD};
inline constexpr StateValue kPriorAutoAdminLogon{L"PriorAutoAdminLogon", kTypeOfCopied};
inline constexpr StateValue kPriorDefaultUserName{L"PriorDefaultUserName", kTypeOfCopied};
inline constexpr StateValue kPriorDefaultDomainName{L"PriorDefaultDomainName", kTypeOfCopied};
inline constexpr StateValue kPriorDefaultPassword{L"PriorDefaultPassword", kTypeOfCopied};
inline constexpr StateValue kPriorAutoLogonCount{L"PriorAutoLogonCount", kTypeOfCopied};
inline constexpr StateValue kPriorPasswordLess{L"PriorDevicePasswordLessBuildVersion", kTypeOfCopied};
inline constexpr StateValue kPriorFirstLogonAnimation{L"PriorEnableFirstLogonAnimation", kTypeOfCopied};

// Power.
inline constexpr StateValue kPowerPolicy{L"PowerPolicy", REG_SZ};
inline constexpr StateValue kPowerSource{L"PowerSource", REG_SZ};
inline constexpr StateValue kPowerLocal{L"PowerLocal", REG_SZ};
inline constexpr StateValue kPowerError{L"PowerError", REG_SZ};
inline constexpr StateValue kPowerScheduleApplied{L"PowerScheduleApplied", REG_SZ};
inline constexpr StateValue kPriorPower{L"PriorPower", REG_SZ};

// Updates of Windows.
inline constexpr StateValue kUpdatesPolicy{L"UpdatesPolicy", REG_SZ};
inline constexpr StateValue kUpdatesSource{L"UpdatesSource", REG_SZ};
inline constexpr StateValue kOsUpdatesWindowDone{L"OsUpdatesWindowDone", REG_SZ};
inline constexpr StateValue kOsUpdatesReport{L"OsUpdatesReport", REG_SZ};
inline constexpr StateValue kOsUpdatesCommittedAt{L"OsUpdatesCommittedAt", REG_QWORD};
inline constexpr StateValue kOwnsWuPolicy{L"OwnsWuPolicy", REG_DWORD};
inline constexpr StateValue kMadeWuKeys{L"MadeWuKeys", REG_SZ};
inline constexpr StateValue kPriorWuNoAutoReboot{L"PriorWuNoAutoRebootWithLoggedOnUsers", kTypeOfCopied};
inline constexpr StateValue kPriorWuSetActiveHours{L"PriorWuSetActiveHours", kTypeOfCopied};
inline constexpr StateValue kPriorWuActiveHoursStart{L"PriorWuActiveHoursStart", kTypeOfCopied};
inline constexpr StateValue kPriorWuActiveHoursEnd{L"PriorWuActiveHoursEnd", kTypeOfCopied};
inline constexpr StateValue kPriorWuActiveHoursMaxRange{L"PriorWuActiveHoursMaxRange", kTypeOfCopied};

// Network adapters and the proxy.
inline constexpr StateValue kPriorNetwork{L"PriorNetwork", REG_SZ};
inline constexpr StateValue kPriorWinHttpSettings{L"PriorWinHttpSettings", kTypeOfCopied};
inline constexpr StateValue kPriorProxy{L"PriorProxy", REG_SZ};
inline constexpr StateValue kAppliedProxy{L"AppliedProxy", REG_SZ};

// All of them. One in a line would be as long as the rest of this file.
// clang-format off
inline constexpr const StateValue* kStateValues[] = {
    &kAuthBaseUrl, &kDevAllowUnsigned, &kDeviceToken, &kTerminalName, &kSignIn, &kUnknownSince, &kLastError,
    &kToldTroubles, &kTeardownPending, &kTeardownSuperseded, &kProvisioned, &kAccountSid, &kAccountCreating, &kStaleProfileSids,
    &kMaintenance, &kMaintenanceAt, &kMaintenanceFailures, &kMaintenanceLockedUntil, &kOwnsAutoLogon,
    &kAutoLogonDigest, &kAutoLogonRestoring, &kOwnsHideFastUserSwitching, &kMadeSignInKeys, &kPriorLsaSecret,
    &kPriorAutoAdminLogon, &kPriorDefaultUserName, &kPriorDefaultDomainName, &kPriorDefaultPassword,
    &kPriorAutoLogonCount, &kPriorPasswordLess, &kPriorFirstLogonAnimation, &kPowerPolicy, &kPowerSource,
    &kPowerLocal, &kPowerError, &kPowerScheduleApplied, &kPriorPower, &kUpdatesPolicy, &kUpdatesSource,
    &kOsUpdatesWindowDone, &kOsUpdatesReport, &kOsUpdatesCommittedAt, &kOwnsWuPolicy, &kMadeWuKeys,
    &kPriorWuNoAutoReboot, &kPriorWuSetActiveHours, &kPriorWuActiveHoursStart, &kPriorWuActiveHoursEnd,
    &kPriorWuActiveHoursMaxRange, &kPriorNetwork, &kPriorWinHttpSettings, &kPriorProxy, &kAppliedProxy};
// clang-format on

}  // namespace kiosk::state
