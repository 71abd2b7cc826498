// A state key that somebody edited: each value in turn missing or of another type. What "status" says, what a start and
// a check-in make of it, and what is left after the end of kiosk mode.
#include "account/kiosk_account.h"
#include "account/maintenance.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "enrolment/device_token.h"
#include "json/serialise.h"
#include "pipe/status.h"
#include "portal/check_in.h"
#include "portal/revocation.h"
#include "sim/computer.h"
#include "sim/seam.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

#include <algorithm>
#include <cstring>

namespace kiosk {
namespace {

// What a start, and then a pass of the worker, say.
std::string StartAndCheckIn() {
  account::FinishPendingRemoval();
  account::RepairMaintenance();
  account::RememberAdministratorSessions();
  account::TrimPrivilegedGroups();
  account::ApplyKioskPolicies();
  std::string answer = state::FlagIsOn(state::kMaintenance) ? "in maintenance, " : "";
  const text::Secret token = enrolment::ReadDeviceToken();
  if (token.Empty()) {
    return answer + "not enrolled";
  }
  const portal::CheckInResult result = portal::CheckIn(token.Get());
  EXPECT_FALSE(portal::HandleDeviceStatus(result, token.Get()));
  const std::string problem = account::IsKioskProvisioned() ? "fine" : account::ProvisionIfNeeded(token.Get());
  return answer + (result.error.empty() ? "" : result.error + ", ") + (problem.empty() ? "provisioned" : problem);
}

void Damage(const state::StateValue& value, bool missing) {
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, state::kStateKey, value.name);
  if (!missing && value.type == REG_SZ) {
    test::SetDword(state::kStateKey, value.name, 1);
  } else if (!missing) {
    test::SetString(state::kStateKey, value.name, L"1");
  }
}

constexpr char kStatus[] =
    R"({"ok":true,"enrolled":true,"provisioned":true,"kioskSession":false,"maintenance":true,"account":"NorvaneKiosk",)"
    R"("terminalName":"Hall","signIn":{"microsoft":true,"email":false,"extraHosts":[]},"error":"HTTP 503"})";
constexpr char kWinlogon[] = R"(hklm\software\microsoft\windows nt\currentversion\winlogon\)";
constexpr char kPasswordLess[] = R"(hklm\software\microsoft\windows nt\currentversion\passwordless\device\)";
constexpr char kPolicies[] = R"(hklm\software\microsoft\windows\currentversion\policies\system\)";

// The values whose damage shows: in the status (this part of it reads so instead), in the answer, or in what the end of
// kiosk mode leaves on the computer. All others are as if nothing had happened.
struct Effect {
  const wchar_t* name;
  std::vector<std::string> left = {};  // things that begin so
  const char* answer = "in maintenance, fine";
  const char* part = "";
  const char* readsAs = "";
};
const Effect kNone{L""};
const Effect kEffects[] = {
    {L"DeviceToken", {}, "in maintenance, not enrolled", R"("enrolled":true)", R"("enrolled":false)"},
    {L"TerminalName", {}, "in maintenance, fine", R"(:"Hall")", R"(:"")"},
    {L"SignIn", {}, "in maintenance, fine", R"("email":false)", R"("email":true)"},
    {L"LastError", {}, "in maintenance, fine", R"(,"error":"HTTP 503")", ""},
    {L"Provisioned", {}, "in maintenance, provisioned", R"("provisioned":true)", R"("provisioned":false)"},
    {L"Maintenance", {}, "fine", R"("maintenance":true)", R"("maintenance":false)"},
    {L"MaintenanceAt", {}, "fine"},
    // Whose account it is nobody can tell any more: it is left to the administrator.
    {L"AccountSid",
     {R"(folder c:\users\norvanekiosk)", R"(hklm\software\microsoft\windows nt\currentversion\profilelist\)",
      "member s-1-5-32-545", "user norvanekiosk"},
     "in maintenance, account_exists"},
    // Nothing is touched without the mark, and the owner's settings stay in the state key.
    {L"OwnsAutoLogon",
     {kWinlogon, kPasswordLess, std::string(kPolicies) + "enablefirstlogonanimation", "secret defaultpassword",
      R"(hklm\software\norvane\tessaly\kiosk\prior)", R"(hklm\software\norvane\tessaly\kiosk\autologondigest)"}},
    {L"OwnsHideFastUserSwitching", {std::string(kPolicies) + "hidefastuserswitching"}},
    // A copy is put back as it stands, and none as none.
    {L"PriorAutoAdminLogon", {std::string(kWinlogon) + "autoadminlogon"}},
    {L"PriorDefaultUserName", {std::string(kWinlogon) + "defaultusername"}},
    {L"PriorDefaultDomainName", {std::string(kWinlogon) + "defaultdomainname"}},
    {L"PriorDefaultPassword", {std::string(kWinlogon) + "defaultpassword"}},
    {L"PriorAutoLogonCount", {std::string(kWinlogon) + "autologoncount"}},
    {L"PriorDevicePasswordLessBuildVersion", {kPasswordLess}},
    {L"PriorEnableFirstLogonAnimation", {std::string(kPolicies) + "enablefirstlogonanimation"}},
};

void EnrolWithEveryValue(std::uint64_t now) {
  test::Enrol();
  test::SetString(state::kStateKey, L"TerminalName", L"Hall");
  test::SetString(state::kStateKey, L"SignIn", L"{\"email\":false}");
  test::SetString(state::kStateKey, L"LastError", L"HTTP 503");
  test::SetDword(state::kStateKey, L"Maintenance", 1);
  test::SetString(account::kWinlogonKey, L"AutoAdminLogon", L"0");
  ASSERT_TRUE(state::WriteStateQword(state::kMaintenanceAt, now) && state::WriteStateQword(state::kUnknownSince, now));
}

// Everything of `left` is there, and nothing that is not in it, the damaged value itself aside: a copy that was damaged
// may be what the owner had by chance.
void ExpectLeft(const std::set<std::string>& differing, const Effect& effect, const std::wstring& name) {
  const std::string self = test::Lower("\\kiosk\\" + sim::Narrow(name));
  std::set<std::string> found, surplus;
  for (const std::string& each : differing) {
    const auto begin = std::find_if(effect.left.begin(), effect.left.end(),
                                    [&](const std::string& left) { return each.starts_with(left); });
    if (begin != effect.left.end()) {
      found.insert(*begin);
    } else if (!each.ends_with(self)) {
      surplus.insert(each);
    }
  }
  EXPECT_EQ(found, std::set<std::string>(effect.left.begin(), effect.left.end()));
  EXPECT_EQ(surplus, std::set<std::string>{});
}

TEST(StateDamage, EveryValueMissingOrOfAnotherTypeGetsItsExactAnswer) {
  const sim::VirtualClock clock(test::kMorning);
  sim::ScriptedPortal portal;
  portal.On(L"POST", test::kCheckInPath, sim::Response{.body = R"({"status":"enrolled","name":"Hall"})"});
  for (const state::StateValue* value : state::kStateValues) {
    const auto* found = std::find_if(std::begin(kEffects), std::end(kEffects),
                                     [&](const Effect& each) { return std::wcscmp(each.name, value->name) == 0; });
    const Effect& effect = found != std::end(kEffects) ? *found : kNone;
    std::string status = kStatus;
    status.replace(status.find(effect.part), std::strlen(effect.part), effect.readsAs);
    for (const bool missing : {true, false}) {
      SCOPED_TRACE(sim::Narrow(value->name) + (missing ? " missing" : " of another type"));
      test::ResetComputer();
      test::OwnComputer();
      test::SetDword(account::kSystemPoliciesKey, L"EnableFirstLogonAnimation", 1);
      const std::string before = sim::DumpMachine();
      EnrolWithEveryValue(clock.SystemTime());
      Damage(*value, missing);
      EXPECT_EQ(json::Serialise(test::Ask(pipe::Status)), status);
      EXPECT_EQ(StartAndCheckIn(), effect.answer);
      account::RemoveKioskMode(false, "because");
      ExpectLeft(test::Differences(before), effect, value->name);
    }
  }
}

}  // namespace
}  // namespace kiosk
