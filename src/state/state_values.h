// Every value of the Kiosk state key: its name, the registry type that is written (a reader accepts only that type),
// and what it means. Absence is the normal way to say off, none or not set: a value is deleted rather than stored
// empty. Times are FILETIME values (100 ns units since 1601, UTC) in a REG_QWORD.
#pragma once

#include "win32/winapi.h"

namespace kiosk::state {

inline constexpr wchar_t kStateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Kiosk";

struct StateValue {
  const wchar_t* name;
  DWORD type;
  const char* owner;  // the folder below src/ that writes it, or who else does
  const char* meaning;
};

inline constexpr StateValue kDeviceToken{L"DeviceToken", REG_BINARY, "portal",
                                         "the device token, protected by DPAPI for this machine; present and not empty "
                                         "means enrolled"};
inline constexpr StateValue kAuthBaseUrl{L"AuthBaseUrl", REG_SZ, "an administrator",
                                         "base URL of the portal instead of the built-in one (REG_EXPAND_SZ too)"};
inline constexpr StateValue kTerminalName{L"TerminalName", REG_SZ, "portal",
                                          "the terminal's name from the last check-in"};
inline constexpr StateValue kSignIn{L"SignIn", REG_SZ, "portal",
                                    "the sign-in methods from the last check-in, as compact JSON"};
inline constexpr StateValue kUnknownSince{L"UnknownSince", REG_QWORD, "portal",
                                          "when the portal first answered that it does not know this terminal"};
inline constexpr StateValue kLastError{L"LastError", REG_SZ, "whoever met it", "the last error, shown by status"};
inline constexpr StateValue kProvisioned{L"Provisioned", REG_DWORD, "account",
                                         "1 when the kiosk account is completely set up"};
inline constexpr StateValue kAccountSid{L"AccountSid", REG_SZ, "account", "SID text of the kiosk account"};
inline constexpr StateValue kTeardownPending{L"TeardownPending", REG_DWORD, "account",
                                             "1 while a teardown must still be finished"};
inline constexpr StateValue kTeardownSuperseded{
    L"TeardownSuperseded", REG_DWORD, "portal",
    "1 while a token is stored over a pending teardown: the token is newer"};
inline constexpr StateValue kMaintenance{L"Maintenance", REG_DWORD, "account", "1 while maintenance mode is on"};
inline constexpr StateValue kMaintenanceAt{L"MaintenanceAt", REG_QWORD, "account", "when maintenance mode began"};
inline constexpr StateValue kMaintenanceFailures{L"MaintenanceFailures", REG_DWORD, "account",
                                                 "checks of the exit password since the last right one or lockout"};
inline constexpr StateValue kMaintenanceLockedUntil{L"MaintenanceLockedUntil", REG_QWORD, "account",
                                                    "until when no check of the exit password is made"};
inline constexpr StateValue kAccountCreating{L"AccountCreating", REG_QWORD, "account",
                                             "when the service began to create the kiosk account; gone once its SID is "
                                             "recorded"};
inline constexpr StateValue kStaleProfileSids{L"StaleProfileSids", REG_MULTI_SZ, "account",
                                              "SID texts of earlier kiosk accounts whose profiles could not be deleted "
                                              "yet"};
inline constexpr StateValue kOwnsAutoLogon{L"OwnsAutoLogon", REG_DWORD, "account",
                                           "1: the computer's own sign-in settings were saved and automatic sign-in is "
                                           "the service's; written before the first of them is changed"};
inline constexpr StateValue kAutoLogonDigest{L"AutoLogonDigest", REG_SZ, "account",
                                             "SHA-256 digest of the sign-in secret that the service stored; two with a "
                                             "blank between while it is being replaced"};
inline constexpr StateValue kAutoLogonRestoring{L"AutoLogonRestoring", REG_DWORD, "account",
                                                "1 once the computer's own sign-in settings are being put back; goes "
                                                "with the mark"};
inline constexpr StateValue kOwnsHideFastUserSwitching{L"OwnsHideFastUserSwitching", REG_DWORD, "account",
                                                       "1: the machine-wide HideFastUserSwitching policy is the "
                                                       "service's; written before the policy"};
inline constexpr StateValue kMadeSignInKeys{L"MadeSignInKeys", REG_SZ, "account",
                                            "keys of the computer's that were made for sign-in settings, with bars "
                                            "between"};
inline constexpr StateValue kPriorLsaSecret{L"PriorLsaSecret", REG_DWORD, "account",
                                            "1 when the computer had a secret for automatic sign-in of its own"};

// Copies of the computer's own sign-in settings; each has the type and the bytes of the value it copies.
inline constexpr DWORD kTypeOfCopied = REG_NONE;
inline constexpr char kPriorMeaning[] = "the computer's own setting of this name from before enrolment";
inline constexpr StateValue kPriorAutoAdminLogon{L"PriorAutoAdminLogon", kTypeOfCopied, "account", kPriorMeaning};
inline constexpr StateValue kPriorDefaultUserName{L"PriorDefaultUserName", kTypeOfCopied, "account", kPriorMeaning};
inline constexpr StateValue kPriorDefaultDomainName{L"PriorDefaultDomainName", kTypeOfCopied, "account", kPriorMeaning};
inline constexpr StateValue kPriorDefaultPassword{L"PriorDefaultPassword", kTypeOfCopied, "account", kPriorMeaning};
inline constexpr StateValue kPriorAutoLogonCount{L"PriorAutoLogonCount", kTypeOfCopied, "account", kPriorMeaning};
inline constexpr StateValue kPriorPasswordLess{L"PriorDevicePasswordLessBuildVersion", kTypeOfCopied, "account",
                                               kPriorMeaning};
inline constexpr StateValue kPriorFirstLogonAnimation{L"PriorEnableFirstLogonAnimation", kTypeOfCopied, "account",
                                                      kPriorMeaning};

inline constexpr StateValue kPowerPolicy{L"PowerPolicy", REG_SZ, "power",
                                         "the portal's last valid power policy, as canonical JSON"};
inline constexpr StateValue kPowerSource{L"PowerSource", REG_SZ, "power",
                                         "where the portal has that policy from: device, tenant or default"};
inline constexpr StateValue kPowerLocal{
    L"PowerLocal", REG_SZ, "power", "the policy that an administrator at the terminal set instead, as canonical JSON"};
inline constexpr StateValue kPowerError{L"PowerError", REG_SZ, "power",
                                        "what is wrong with the schedule in force: wake_unavailable"};
inline constexpr StateValue kPowerScheduleApplied{L"PowerScheduleApplied", REG_SZ, "power",
                                                  "the schedule and program for which both tasks are registered"};
inline constexpr StateValue kPriorPower{L"PriorPower", REG_SZ, "power",
                                        "the power scheme and its values from before the first change, as JSON"};
inline constexpr StateValue kUpdatesPolicy{L"UpdatesPolicy", REG_SZ, "updates",
                                           "the portal's last valid policy for OS updates, as canonical JSON"};
inline constexpr StateValue kUpdatesSource{L"UpdatesSource", REG_SZ, "updates",
                                           "where that policy comes from: device, tenant or default"};
inline constexpr StateValue kOsUpdatesWindowDone{L"OsUpdatesWindowDone", REG_SZ, "updates",
                                                 "the date on which the last window opened whose run was done"};
inline constexpr StateValue kOsUpdatesReport{L"OsUpdatesReport", REG_SZ, "updates",
                                             "the last result of an update run, as JSON, sent with each check-in"};
inline constexpr StateValue kOsUpdatesCommittedAt{
    L"OsUpdatesCommittedAt", REG_QWORD, "updates",
    "when the update agent was last asked to commit, right before a restart, as FILETIME"};
inline constexpr StateValue kOwnsWuPolicy{
    L"OwnsWuPolicy", REG_DWORD, "updates",
    "1: the computer's own Windows Update restart policies were saved and are the "
    "service's; written before the first of them is changed"};
inline constexpr StateValue kMadeWuKeys{L"MadeWuKeys", REG_SZ, "updates",
                                        "keys of the computer's that were made for these policies, with bars between"};
inline constexpr StateValue kPriorWuNoAutoReboot{L"PriorWuNoAutoRebootWithLoggedOnUsers", kTypeOfCopied, "updates",
                                                 kPriorMeaning};
inline constexpr StateValue kPriorWuSetActiveHours{L"PriorWuSetActiveHours", kTypeOfCopied, "updates", kPriorMeaning};
inline constexpr StateValue kPriorWuActiveHoursStart{L"PriorWuActiveHoursStart", kTypeOfCopied, "updates",
                                                     kPriorMeaning};
inline constexpr StateValue kPriorWuActiveHoursEnd{L"PriorWuActiveHoursEnd", kTypeOfCopied, "updates", kPriorMeaning};
inline constexpr StateValue kPriorWuActiveHoursMaxRange{L"PriorWuActiveHoursMaxRange", kTypeOfCopied, "updates",
                                                        kPriorMeaning};
inline constexpr StateValue kPriorNetwork{L"PriorNetwork", REG_SZ, "network",
                                          "adapters' settings before and after a change that is under way or that the "
                                          "portal has not answered over yet, as JSON; absent otherwise"};
inline constexpr StateValue kPriorWinHttpSettings{L"PriorWinHttpSettings", kTypeOfCopied, "proxy",
                                                  "the computer's own default proxy while the service's is set: a copy "
                                                  "of Windows' value, REG_NONE without bytes where there was none"};
inline constexpr StateValue kPriorProxy{L"PriorProxy", REG_SZ, "proxy",
                                        "the same as JSON, as older versions kept it; only where the copy is missing"};
inline constexpr StateValue kAppliedProxy{L"AppliedProxy", REG_SZ, "proxy",
                                          "the default proxies that the service set last or is setting, as JSON; any "
                                          "other is somebody else's"};

inline constexpr StateValue kDevAllowUnsigned{L"DevAllowUnsigned", REG_DWORD, "a developer",
                                              "1 lets an unsigned service admit callers"};

inline constexpr const StateValue* kStateValues[] = {
    &kDeviceToken,
    &kAuthBaseUrl,
    &kTerminalName,
    &kSignIn,
    &kUnknownSince,
    &kLastError,
    &kProvisioned,
    &kAccountSid,
    &kTeardownPending,
    &kTeardownSuperseded,
    &kMaintenance,
    &kMaintenanceAt,
    &kMaintenanceFailures,
    &kMaintenanceLockedUntil,
    &kDevAllowUnsigned,
    &kPriorNetwork,
    &kPriorWinHttpSettings,
    &kPriorProxy,
    &kAppliedProxy,
    &kAccountCreating,
    &kStaleProfileSids,
    &kOwnsAutoLogon,
    &kAutoLogonDigest,
    &kAutoLogonRestoring,
    &kOwnsHideFastUserSwitching,
    &kMadeSignInKeys,
    &kPriorLsaSecret,
    &kPriorAutoAdminLogon,
    &kPriorDefaultUserName,
    &kPriorDefaultDomainName,
    &kPriorDefaultPassword,
    &kPriorAutoLogonCount,
    &kPriorPasswordLess,
    &kPriorFirstLogonAnimation,
    &kPowerPolicy,
    &kPowerSource,
    &kPowerLocal,
    &kPowerError,
    &kPowerScheduleApplied,
    &kPriorPower,
    &kUpdatesPolicy,
    &kUpdatesSource,
    &kOsUpdatesWindowDone,
    &kOsUpdatesReport,
    &kOsUpdatesCommittedAt,
    &kOwnsWuPolicy,
    &kMadeWuKeys,
    &kPriorWuNoAutoReboot,
    &kPriorWuSetActiveHours,
    &kPriorWuActiveHoursStart,
    &kPriorWuActiveHoursEnd,
    &kPriorWuActiveHoursMaxRange,
};

}  // namespace kiosk::state
