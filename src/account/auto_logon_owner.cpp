#include "account/auto_logon_owner.h"

#include "account/sign_in_secret.h"
#include "account/winlogon.h"
#include "enrolment/kiosk_session.h"
#include "state/kiosk_state.h"
#include "win32/computer_name.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::account {
namespace {

std::wstring WinlogonText(const wchar_t* name) { return state::ReadString(kWinlogonKey, name).value_or(L""); }

bool NamesKioskUser() { return win32::EqualIgnoringCase(WinlogonText(kDefaultUserName), enrolment::kKioskUser); }

// A computer that does not tell its name has nothing to compare with.
bool NamesThisComputer() {
  const std::wstring computer = win32::ComputerName();
  return computer.empty() || win32::EqualIgnoringCase(WinlogonText(kDefaultDomainName), computer);
}

// No secret, or no answer, is no sign of anybody.
bool PointsElsewhere(const std::wstring& ourDigests) {
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kWinlogonKey, kDefaultPassword, RRF_RT_ANY | RRF_NOEXPAND, nullptr, nullptr,
                   nullptr) == ERROR_SUCCESS) {
    return true;
  }
  const std::string present = PresentSecretDigest();
  return !present.empty() && ourDigests.find(win32::ToWide(present)) == std::wstring::npos;
}

}  // namespace

bool AutoLogonIsOn() {
  const auto text = state::ReadString(kWinlogonKey, kAutoAdminLogon);
  return text ? *text == L"1" : state::ReadDword(kWinlogonKey, kAutoAdminLogon) == DWORD{1};
}

bool AutoLogonNamesKiosk() { return NamesKioskUser() && NamesThisComputer(); }

bool AutoLogonIsOurs() {
  if (NamesKioskUser()) {
    return true;
  }
  const std::wstring digests = state::ReadStateString(state::kAutoLogonDigest);
  return !digests.empty() && !PointsElsewhere(digests);
}

bool KioskNamesAreDue() {
  return !AutoLogonNamesKiosk() && state::ReadState(state::kOwnsAutoLogon) &&
         !state::FlagIsOn(state::kTeardownPending) && AutoLogonIsOurs();
}

bool WriteKioskNames() {
  return state::WriteString(kWinlogonKey, kDefaultUserName, enrolment::kKioskUser) &&
         state::WriteString(kWinlogonKey, kDefaultDomainName, win32::ComputerName());
}

}  // namespace kiosk::account
