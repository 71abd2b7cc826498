// Where Windows keeps its sign-in settings, below HKLM.
#pragma once

namespace kiosk::account {

inline constexpr wchar_t kWinlogonKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
inline constexpr wchar_t kPasswordLessKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PasswordLess\\Device";
inline constexpr wchar_t kSystemPoliciesKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";

// In the first of them: what automatic sign-in goes by, beside the secret that the local security authority keeps.
inline constexpr wchar_t kAutoAdminLogon[] = L"AutoAdminLogon";
inline constexpr wchar_t kDefaultUserName[] = L"DefaultUserName";
inline constexpr wchar_t kDefaultDomainName[] = L"DefaultDomainName";
inline constexpr wchar_t kDefaultPassword[] = L"DefaultPassword";
inline constexpr wchar_t kAutoLogonCount[] = L"AutoLogonCount";

// In the other two: what Windows would show before it signs the kiosk in.
inline constexpr wchar_t kPasswordLessVersion[] = L"DevicePasswordLessBuildVersion";
inline constexpr wchar_t kFirstLogonAnimation[] = L"EnableFirstLogonAnimation";

}  // namespace kiosk::account
