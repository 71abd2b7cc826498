#include "tests/support/terminal.h"

#include "account/provisioning.h"
#include "enrolment/device_token.h"
#include "sim/computer.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "sim/seam.h"
#include "win32/handle.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace kiosk::test {
namespace {

std::set<std::string> Lines(const std::string& dump) {
  std::set<std::string> lines;
  std::istringstream text(dump);
  for (std::string line; std::getline(text, line);) {
    lines.insert(line);
  }
  return lines;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

}  // namespace

void OwnComputer() {
  using account::kWinlogonKey;
  sim::MakeProfile(sim::AddUser(L"anna", L"secret"), L"anna");
  SetString(kWinlogonKey, L"AutoAdminLogon", L"0", REG_EXPAND_SZ);
  SetString(kWinlogonKey, L"DefaultUserName", L"anna");
  SetString(kWinlogonKey, L"DefaultDomainName", L"%COMPUTERNAME%", REG_EXPAND_SZ);
  SetRaw(kWinlogonKey, L"DefaultPassword", REG_BINARY, "\x80\xff\0theirs", 9);
  SetDword(kWinlogonKey, L"AutoLogonCount", 3);
  SetDword(account::kPasswordLessKey, L"DevicePasswordLessBuildVersion", 2);
  SetString(account::kSystemPoliciesKey, L"EnableFirstLogonAnimation", L"1");
}

void Enrol(const std::string& token, bool provision) {
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test");
  SetString(kUpdateKey, L"ClientInstallDir", L"C:\\Program Files\\Łódź\\");
  if (!token.empty()) {
    ASSERT_TRUE(enrolment::StoreDeviceToken(token));
  }
  if (provision) {
    ASSERT_EQ(account::ProvisionKioskAccount(token), "");
  }
}

void MakeKioskTerminal() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  Enrol("tok", false);
  sim::RemoveUser(L"NorvaneKiosk");
  SetString(state::kStateKey, L"AccountSid", sim::AddUser(L"NorvaneKiosk"));
  SetDword(state::kStateKey, L"Provisioned", 1);
  SetDword(state::kStateKey, L"OwnsAutoLogon", 1);
  SetString(account::kWinlogonKey, L"AutoAdminLogon", L"1");
  SetString(account::kWinlogonKey, L"DefaultUserName", L"NorvaneKiosk");
  sim::SetSession(kKioskSession, L"NorvaneKiosk", sim::ComputerName());
  sim::SetSession(kOtherSession, L"Anna", sim::ComputerName());
}

void ExpectProvisioned() {
  const auto user = sim::FindUser(L"NorvaneKiosk");
  ASSERT_TRUE(user);
  EXPECT_TRUE(state::FlagIsOn(state::kProvisioned) && state::FlagIsOn(state::kOwnsAutoLogon));
  EXPECT_EQ(state::ReadStateString(state::kAccountSid), user->sid);
  EXPECT_EQ(user->flags & 0x10041U, 0x10041U);
  EXPECT_EQ(user->password.size(), 32U);
  EXPECT_EQ(sim::Secret(L"DefaultPassword"), user->password);
  const auto users = sim::GroupMembers(L"S-1-5-32-545");
  EXPECT_EQ(std::count(users.begin(), users.end(), user->sid), 1);
  EXPECT_EQ(Winlogon(L"DefaultUserName"), L"NorvaneKiosk");
  EXPECT_EQ(Winlogon(L"DefaultDomainName"), sim::ComputerName());
  EXPECT_FALSE(HasValue(state::kStateKey, L"AccountCreating"));
  EXPECT_FALSE(sim::ProfileFolder(user->sid).empty());
}

std::set<std::wstring> StateNames() {
  std::set<std::wstring> names;
  wchar_t name[256];
  win32::RegistryKey key;
  RegOpenKeyExW(HKEY_LOCAL_MACHINE, state::kStateKey, 0, KEY_READ, key.Put());
  for (DWORD i = 0, size = 256;
       key && RegEnumValueW(key.Get(), i, name, &size, nullptr, nullptr, nullptr, nullptr) == 0; ++i, size = 256) {
    names.insert(name);
  }
  names.erase(L"AuthBaseUrl");  // an administrator's
  return names;
}

std::set<std::string> Differences(const std::string& before) {
  std::set<std::string> lines;
  std::set<std::string> names;
  const std::set<std::string> left = Lines(before), right = Lines(sim::DumpMachine());
  std::set_symmetric_difference(left.begin(), left.end(), right.begin(), right.end(),
                                std::inserter(lines, lines.end()));
  for (const std::string& line : lines) {
    // A value of the registry ends before " = ", anything else with its second word.
    const std::size_t content = line.find(" = ");
    names.insert(Lower(line.substr(0, content != std::string::npos ? content : line.find(' ', line.find(' ') + 1))));
  }
  for (const std::wstring& name : StateNames()) {
    names.insert(Lower("HKLM\\" + sim::Narrow(std::wstring(state::kStateKey) + L"\\" + name)));
  }
  return names;
}

}  // namespace kiosk::test
