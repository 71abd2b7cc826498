// Where Windows keeps its sign-in settings, below HKLM.
#pragma once

namespace kiosk::account {

inline constexpr wchar_t kWinlogonKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
inline constexpr wchar_t kPasswordLessKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\PasswordLess\\Device";
inline constexpr wchar_t kSystemPoliciesKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";

}  // namespace kiosk::account
