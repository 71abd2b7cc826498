// What must hold of a terminal, whatever happened to it.
#include "account/kiosk_account.h"
#include "account/winlogon.h"
#include "branding/branding_folder.h"
#include "enrolment/device_token.h"
#include "lockdown/policy_tables.h"
#include "power/power_policy_store.h"
#include "sim/accounts.h"
#include "sim/lsa.h"
#include "sim/machine.h"
#include "sim/power.h"
#include "sim/profiles.h"
#include "sim/sessions.h"
#include "sim/tasks.h"
#include "sim/windows_update.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tests/soak/life.h"
#include "tests/soak/portal.h"
#include "tests/soak/world.h"
#include "tests/support/handle_count.h"
#include "tests/support/terminal.h"
#include "updates/stored_policy.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>

namespace kiosk::soak {
namespace {

using test::Winlogon;

constexpr wchar_t kKiosk[] = L"NorvaneKiosk";
constexpr char kSwitch[] = R"(hklm\software\microsoft\windows nt\currentversion\winlogon\autoadminlogon)";

bool Same(const std::wstring& left, const std::wstring& right) { return _wcsicmp(left.c_str(), right.c_str()) == 0; }

// No account but the owner's and the kiosk's, which the service knows as its own; no profile of others.
void CheckAccounts() {
  int others = 0;
  for (const std::wstring& name : sim::UserNames()) {
    others += name != L"anna" && name != L"berta" && name != kKiosk ? 1 : 0;
  }
  Need(others == 0, "account: there are accounts of nobody's");
  const sim::User user = test::Kiosk();
  const bool known = Same(state::ReadStateString(state::kAccountSid), user.sid);
  if (world.namesake) {
    Need(user.password == kNamesakesPassword && !known, "account: the service touches somebody's own");
  } else if (!user.sid.empty()) {
    Need(known || state::ReadState(state::kAccountCreating), "account: the service does not know its own account");
  }
}

// What the service keeps of the computer's is never its own.
void CheckCopies() {
  Need(!Same(state::ReadStateString(state::kPriorDefaultUserName), kKiosk),
       "copies: the kiosk's name is kept as the owner's");
  const std::wstring password = test::Kiosk().password;
  Need(password.empty() || state::ReadStateString(state::kPriorDefaultPassword) != password,
       "copies: the kiosk's password is kept as the owner's");
  const auto prior = state::ReadState(state::kPriorAutoAdminLogon);
  Need(!prior || prior->type == REG_EXPAND_SZ, "copies: AutoAdminLogon is kept as the service writes it");
}

// Whoever is signed in as the kiosk sees the client and nothing else.
void CheckLockdown() {
  const sim::User user = test::Kiosk();
  if (user.sid.empty() || sim::SessionOf(user.sid) == 0) {
    return;
  }
  const auto text = [&](const wchar_t* key, const wchar_t* name) {
    wchar_t value[512] = L"";
    DWORD size = sizeof(value);
    RegGetValueW(HKEY_USERS, (user.sid + L"\\" + key).c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size);
    return std::wstring(value);
  };
  Need(text(lockdown::kShellKey, L"Shell").find(lockdown::kShellProgram) != std::wstring::npos,
       "lockdown: the signed-in kiosk has Windows' own shell");
  for (const lockdown::PolicyValue& policy : lockdown::kDesktopValues) {
    DWORD number = 0;
    DWORD size = sizeof(number);
    Need(policy.text != nullptr || (RegGetValueW(HKEY_USERS, (user.sid + L"\\" + policy.key).c_str(), policy.name,
                                                 RRF_RT_REG_DWORD, nullptr, &number, &size) == 0 &&
                                    number == policy.number),
         "lockdown: the signed-in kiosk lacks " + sim::Narrow(policy.name));
  }
}

// It opens no account any more, and the next enrolment replaces it.
bool SecretMayStay() {
  return world.secretsFailed || ReadNote(L"Refused").find("lsastoreprivatedata") != std::string::npos;
}

// Without the mark nothing of automatic sign-in is the kiosk's, unless a copy still says what the owner's was.
void CheckAutoLogon() {
  if (!state::ReadState(state::kOwnsAutoLogon) && !state::ReadState(state::kPriorLsaSecret)) {
    Need(!Same(Winlogon(L"DefaultUserName"), kKiosk), "sign-in: the kiosk's name stands there, and nobody owns it");
    Need(!sim::Secret(L"DefaultPassword") || SecretMayStay(), "sign-in: the kiosk's secret is left");
  }
}

// Each file of the log and of the state is looked at once, and again where it grew.
void CheckSecrets() {
  static std::map<std::wstring, std::size_t> seen;
  const std::wstring password = test::Kiosk().password;
  const std::string marks[] = {kTokenMark, kPasswordMark, password.empty() ? kTokenMark : sim::Narrow(password)};
  const std::wstring root = state::kLogRoot;
  for (const std::wstring& folder : test::ListFolder(root)) {
    for (const std::wstring& name : test::ListFolder(root + L"\\" + folder)) {
      const std::wstring path = root + L"\\" + folder + L"\\" + name;
      WIN32_FILE_ATTRIBUTE_DATA data{};
      if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) || seen[path] == data.nFileSizeLow) {
        continue;
      }
      seen[path] = data.nFileSizeLow;
      const std::string content = test::ReadWholeFile(path);
      for (const std::string& mark : marks) {
        Need(content.find(mark) == std::string::npos, "secrets: one is in " + sim::Narrow(path));
      }
    }
  }
}

// Values of the state key that are none of the known, tasks, profiles, folders.
void CheckGrowth() {
  for (const std::wstring& name : test::StateNames()) {
    Need(std::any_of(std::begin(state::kStateValues), std::end(state::kStateValues),
                     [&](const state::StateValue* each) { return name == each->name; }),
         "growth: the state key has an unknown value " + sim::Narrow(name));
  }
  Need(sim::AreaNames(L"Tasks").size() <= 2, "growth: more than two tasks");
  std::uint64_t spool = 0;
  for (const std::wstring& name : test::ListFolder(state::kLogDrop)) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW((std::wstring(state::kLogDrop) + L"\\" + name).c_str(), GetFileExInfoStandard, &data);
    spool += data.nFileSizeLow;
  }
  Need(spool < 1'500'000, "growth: the spool is above its limit of one megabyte");
  Need(test::ListFolder(L"C:\\users").size() <= 12, "growth: too many profiles");
  Need(test::ListFolder(L"C:\\ProgramData\\Norvane\\Tessaly").size() <= 4, "growth: folders below ProgramData");
}

bool Healthy() {
  return world.installed && world.outage == kNone && world.logOutage == kNone && !CutOff() && world.disk == 0 &&
         !world.stateKeyRefused && !world.windowsFails && !world.namesake && !state::ClientInstallFolder().empty();
}

std::string HeldToken() { return enrolment::ReadDeviceToken().Get(); }

// Power, updates and branding are as the portal or somebody at the terminal wants them, or wholly the owner's.
void CheckPolicies() {
  const sim::Indexes indexes = sim::SchemeIndexes(L"");
  const auto seconds = [](std::int32_t minutes) { return static_cast<DWORD>(minutes) * 60; };
  if (power::PowerPolicy policy; power::LoadEffectivePowerPolicy(policy)) {
    Need(indexes[0] == seconds(policy.screenOffMinutes) && indexes[2] == seconds(policy.sleepMinutes),
         "policies: the power scheme is not as it is to be");
    Need(sim::AreaNames(L"Tasks").size() == (policy.schedule.enabled ? 2U : 0U),
         "policies: tasks without a schedule, or none");
  } else if (!test::HasValue(state::kStateKey, L"PowerPolicy")) {  // a damaged one leaves the scheme alone
    Need(indexes[0] == 600 && indexes[2] == 1800, "policies: without a power policy the scheme is not the owner's");
  }
  updates::UpdatesPolicy policy;
  const bool automatic = updates::LoadUpdatesPolicy(policy) && policy.automatic;
  const std::wstring key = std::wstring(test::kWindowsUpdateKey) + L"\\AU";
  // A run that is under way, for hours perhaps, has the thread that gives them back.
  Need(sim::LiveAgentOperations() != 0 || (automatic == state::FlagIsOn(state::kOwnsWuPolicy) &&
                                           automatic == test::HasValue(key.c_str(), L"NoAutoRebootWithLoggedOnUsers")),
       "policies: those of Windows Update do not fit the portal's");
  Need(test::ListFolder(branding::kBrandingFolder).size() == BrandingFiles(),
       "policies: the branding is not the portal's");
}

// A call about this thing, or about a key above it.
bool WasRefused(const std::string& name) {
  const std::string refused = ReadNote(L"Refused");
  for (std::size_t at = 0; at < refused.size(); at = refused.find('\n', at) + 1) {
    const std::size_t object = refused.find('(', at) + 1;
    const std::string text = refused.substr(object, refused.find(")\n", object) - object);
    if (!text.empty() && name.starts_with(text)) {
      return true;
    }
  }
  return false;
}

// A kiosk in every respect.
void CheckKiosk() {
  const sim::User user = test::Kiosk();
  const std::string why = " (LastError: " + sim::Narrow(state::ReadStateString(state::kLastError)) + ")";
  Need(account::IsKioskProvisioned(), "peace: enrolled and not provisioned" + why);
  Need(state::ReadStateString(state::kLastError).empty(), "peace: an error stands on record" + why);
  Need(sim::Secret(L"DefaultPassword") == user.password, "sign-in: the secret is not the kiosk's password");
  Need(Winlogon(L"DefaultPassword") == L"none", "sign-in: a password of the owner's stands beside the secret");
  Need(sim::GroupMembers(test::kAdministrators).size() <= 1, "account: the kiosk is an administrator");
  CheckPolicies();
  const bool maintenance = state::FlagIsOn(state::kMaintenance);
  Need(Winlogon(L"AutoAdminLogon") == (maintenance ? L"0" : L"1") || (maintenance && WasRefused(kSwitch)),
       "sign-in: it is switched off, or on in a maintenance");
  Need(maintenance ||
           (Same(Winlogon(L"DefaultUserName"), kKiosk) && Winlogon(L"DefaultDomainName") == sim::ComputerName()),
       "sign-in: the names are not the kiosk's");
  Need(!state::ReadState(state::kTeardownPending) && !state::ReadState(state::kUnknownSince),
       "peace: a good terminal has a mark of its end");
}

// Whether a difference to the owner's computer is none of the product's doing, or what a removal does once and not
// again and Windows refused (the table in tests/kiosk_faults_test.cpp has the reasons), or what an installed service
// keeps of this computer's own troubles.
bool IsNobodys(const std::string& name) {
  const bool lastUser = name.ends_with("defaultusername") || name.ends_with("defaultdomainname");
  return (lastUser && !Same(Winlogon(L"DefaultUserName"), kKiosk)) || name.ends_with("\\maintenancefailures") ||
         name.ends_with("\\maintenancelockeduntil") || name.ends_with("\\toldtroubles") ||
         name.starts_with("hive s-") || name.starts_with("adapter ") ||
         (name == "secret defaultpassword" && SecretMayStay()) || WasRefused(name);
}

// As before, but for what the documents name.
void CheckGivenBack() {
  std::string left;
  for (const std::string& name : test::Differences(ReadNote(L"Before"))) {
    left += IsNobodys(name) ? "" : " [" + name + "]";
  }
  Need(left.empty(), "given back: not as before:" + left);
}

// What the process has committed for itself alone; to GetProcessMemoryInfo Wine answers 0.
std::size_t PrivateKilobytes() {
  std::size_t bytes = 0;
  MEMORY_BASIC_INFORMATION region{};
  for (const char* at = nullptr; VirtualQuery(at, &region, sizeof(region)) != 0;
       at = static_cast<const char*>(region.BaseAddress) + region.RegionSize) {
    bytes += region.State == MEM_COMMIT && region.Type == MEM_PRIVATE ? region.RegionSize : 0;
  }
  return bytes / 1024;
}

}  // namespace

void CheckAlways() {
  CheckAccounts();
  CheckCopies();
  CheckLockdown();
  CheckAutoLogon();
}

void CheckFiles() {
  CheckSecrets();
  CheckGrowth();
}

bool CheckSettled() {
  if (!Healthy() || world.valid == 0 || HeldToken() != Token(world.valid)) {
    return false;
  }
  CheckKiosk();
  static std::ptrdiff_t first = 0;
  const std::ptrdiff_t handles = test::HandlesOf(GetCurrentProcessId());
  first = first == 0 ? handles : first;
  Need(handles <= first + 30, "growth: " + std::to_string(handles) + " handles, once " + std::to_string(first));
  return true;
}

void CheckMemory(std::uint32_t kilobytes) {
  const std::size_t used = PrivateKilobytes();
  const std::ptrdiff_t handles = test::HandlesOf(GetCurrentProcessId());
  const std::string text = std::to_string(used) + " KB of private memory and " + std::to_string(handles) + " handles";
  static const std::size_t usedFirst = used;
  static const std::ptrdiff_t handlesFirst = handles;
  static const std::string textFirst = text;
  static_cast<void>(
      std::fprintf(stderr, "soak: day %.1f: %s\n", static_cast<double>(world.lived) / 86'400'000, text.c_str()));
  Need(used <= usedFirst + kilobytes && handles <= handlesFirst, "growth: " + text + ", once " + textFirst);
}

void CheckUninstalled() {
  Need(!test::HasValue(state::kStateKey, L"AuthBaseUrl") && test::StateNames().empty(),
       "given back: the state key is left after an uninstall");
  CheckGivenBack();
  ++world.removals;
}

void CheckPeace() {
  if (!state::TokenIsStored()) {
    CheckGivenBack();
    ++world.removals;
    return;
  }
  Need(HeldToken() == Token(world.valid), "peace: a token that the portal does not know is still held");
  CheckKiosk();
  ++world.provisioned;
  if (world.peace == 2) {
    Need(sim::SessionOf(test::Kiosk().sid) != 0, "sign-in: the kiosk does not sign in when Windows starts");
  }
}

}  // namespace kiosk::soak
