// The kiosk that a pairing makes of a computer: what docs/operations.md promises of it.
#include "account/winlogon.h"
#include "json/parse.h"
#include "lockdown/policy_tables.h"
#include "power/active_scheme.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tools/proof/hand.h"
#include "tools/proof/journal.h"
#include "tools/proof/life.h"
#include "tools/proof/product.h"
#include "win32/hash.h"
#include "win32/owners.h"
#include "win32/privilege.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace proof {
namespace {

using contract::Asked;
using contract::Platform;
using kiosk::json::Value;
using kiosk::win32::ToWide;

constexpr wchar_t kHive[] = L"NorvaneProofHive";
constexpr wchar_t kAutomaticUpdates[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate\\AU";
constexpr DWORD kOneMinute = 75'000;   // ms, for what the product looks at each minute
constexpr DWORD kScreenOff = 15 * 60;  // s

std::string Photo() { return std::string(200'000, 'p'); }

void Account(Asked& asked) {
  const std::string sid = kiosk::win32::ToNarrow(NeedAccount());
  asked.Same("users with its SID", Beginning("user NorvaneKiosk " + sid + " ").size(), 1);
  BYTE* raw = nullptr;
  Asked::Needs(NetUserGetInfo(nullptr, L"NorvaneKiosk", 23, &raw) == NERR_Success, "its flags");
  const kiosk::win32::NetBuffer record(raw);
  constexpr DWORD kLasting = UF_DONT_EXPIRE_PASSWD | UF_PASSWD_CANT_CHANGE;
  asked.Same("its password stays as it is", reinterpret_cast<const USER_INFO_23*>(raw)->usri23_flags & kLasting,
             kLasting);
}

void Groups(Asked& asked) {
  const std::string sid = kiosk::win32::ToNarrow(NeedAccount());
  std::string groups;
  for (const std::string& line : Beginning("member ")) {
    if (line.ends_with(" " + sid)) {
      groups += line.substr(7, line.size() - sid.size() - 8) + " ";
    }
  }
  asked.Same("its groups", ToWide(groups), L"S-1-5-32-545 ");
}

void Secret(Asked& asked) {
  NeedAccount();
  asked.Same("secrets of that name", Beginning("secret DefaultPassword").size(), 1);
}

void Profile(Asked& asked) {
  const std::optional<std::wstring> folder = kiosk::state::ProfileFolder(NeedAccount());
  asked.True("it is in the profile list", folder.has_value());
  asked.True("it has a hive file", folder && IsThere(*folder + L"\\NTUSER.DAT"));
}

void Hive(Asked& asked) {
  const std::wstring sid = NeedAccount();
  std::wstring root = sid;
  kiosk::win32::RegistryKey key;
  if (RegOpenKeyExW(HKEY_USERS, sid.c_str(), 0, KEY_READ, key.Put()) != ERROR_SUCCESS) {
    const std::optional<std::wstring> folder = kiosk::state::ProfileFolder(sid);
    kiosk::win32::EnablePrivilege(L"SeBackupPrivilege");
    kiosk::win32::EnablePrivilege(L"SeRestorePrivilege");
    Asked::Needs(folder && NoteHive(kHive) &&
                     RegLoadKeyW(HKEY_USERS, kHive, (*folder + L"\\NTUSER.DAT").c_str()) == ERROR_SUCCESS,
                 "the account's hive");
    root = kHive;
  }
  const contract::AtEnd unload([&] {
    if (root == kHive) {
      RegUnLoadKeyW(HKEY_USERS, kHive);
    }
  });
  const auto check = [&](const kiosk::lockdown::PolicyValue& policy) {
    kiosk::state::RawValue value;
    key.Reset();
    RegOpenKeyExW(HKEY_USERS, (root + L"\\" + policy.key).c_str(), 0, KEY_READ, key.Put());
    kiosk::state::ReadRaw(key.Get(), policy.name, value);
    key.Reset();
    asked.True(kiosk::win32::ToNarrow(policy.name).c_str(),
               policy.text != nullptr ? value.Text() == std::optional<std::wstring>(policy.text)
                                      : value.Dword() == std::optional<DWORD>(policy.number));
  };
  const std::wstring shell =
      L"\"" + std::wstring(kClientFolder) + kiosk::lockdown::kShellProgram + L"\"" + kiosk::lockdown::kShellSwitch;
  check({kiosk::lockdown::kShellKey, L"Shell", 0, shell.c_str()});
  std::for_each(std::begin(kiosk::lockdown::kDesktopValues), std::end(kiosk::lockdown::kDesktopValues), check);
  std::for_each(std::begin(kiosk::lockdown::kPolicyValues), std::end(kiosk::lockdown::kPolicyValues), check);
}

void Branding(Asked& asked) {
  NeedPaired();
  const std::wstring folder = std::wstring(kiosk::state::kBrandingFolder) + L"\\";
  const std::string digest = kiosk::win32::Sha256Hex(Photo());
  asked.True("its record is there", Within(kOneCheckIn, [&] { return IsThere(folder + L"branding.json"); }));
  asked.True("its photo arrived whole",
             Within(kOneCheckIn, [&] { return ReadFileText(folder + ToWide(digest)) == Photo(); }));
}

void Power(Asked& asked) {
  NeedPaired();
  asked.KnownWrong(Platform::kWine, "Wine has no power schemes");
  constexpr GUID kVideo{0x7516B95F, 0xF776, 0x4464, {0x8C, 0x53, 0x06, 0x16, 0x7F, 0x40, 0xCC, 0x99}};
  constexpr GUID kVideoIdle{0x3C0BC021, 0xC8A8, 0x4E07, {0xA9, 0x73, 0x6B, 0x14, 0xCB, 0xCB, 0x2B, 0x7E}};
  if (contract::ThisPlatform() == Platform::kWine) {
    asked.True("a power scheme", false);  // asking for a value would end the program
    return;
  }
  DWORD seconds = 0;
  asked.True("the screen goes off after 15 minutes", Within(kOneCheckIn, [&] {
               const kiosk::power::ActiveScheme scheme;
               return scheme &&
                      PowerReadACValueIndex(nullptr, scheme.Id(), &kVideo, &kVideoIdle, &seconds) == ERROR_SUCCESS &&
                      seconds == kScreenOff;
             }));
}

void Tasks(Asked& asked) {
  NeedPaired();
  asked.KnownWrong(Platform::kWine, "Wine's tasks cannot be registered");
  const DWORD patience = contract::ThisPlatform() == Platform::kWine ? 0 : kOneCheckIn;
  asked.True("the task that sends to sleep",
             Within(patience, [] { return !Beginning("task Norvane Kiosk Sleep").empty(); }));
  asked.True("the task that wakes", Within(patience, [] { return !Beginning("task Norvane Kiosk Wake").empty(); }));
}

void Updates(Asked& asked) {
  NeedPaired();
  asked.True("Windows restarts nobody's session", Within(kOneMinute, [] {
               return kiosk::state::ReadDword(kAutomaticUpdates, L"NoAutoRebootWithLoggedOnUsers") ==
                      std::optional<DWORD>(1);
             }));
}

constexpr Step kSteps[] = {
    {{"life/account", "there is one user of that name, with the SID on record and a password that stays", Account}},
    {{"life/groups", "the kiosk is a member of Users alone", Groups}},
    {{"life/secret", "its password is the local security authority's to keep", Secret}},
    {{"life/profile", "it has a profile with a hive", Profile}},
    {{"life/hive", "its hive holds the shell and every policy", Hive}},
    {{"life/automatic sign-in", "Windows is to sign it in by itself, without a question", CheckAutomaticSignIn}},
    {{"life/branding", "the portal's texts and photos lie on the disk", Branding}},
    {{"life/power", "the active scheme has the portal's values", Power}},
    {{"life/tasks", "the scheduler has the task for sleep and the one for waking", Tasks}},
    {{"life/updates", "Windows leaves restarts to the service", Updates}, Step::kMinutes},
};

}  // namespace

void PreparePortal(Portal& portal) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  const std::string photo = Photo();
  char text[1024];
  // Sleep and updates are far from this run.
  static_cast<void>(std::snprintf(
      text, sizeof(text),
      R"({"name":"%s","exitPassword":"%s",)"
      R"("power":{"screenOffMinutes":%lu,"sleepMinutes":0,)"
      R"("schedule":{"enabled":true,"sleepAt":"%02d:%02d","wakeAt":"%02d:%02d","days":[1,2,3,4,5]}},)"
      R"("updates":{"automatic":true,"window":{"start":"%02d:%02d","end":"%02d:%02d","days":[1,2,3,4,5]}},)"
      R"("branding":{"displayName":"%s","photos":[{"sha256":"%s"}]}})",
      kName, kExitPassword, kScreenOff / 60, (now.wHour + 12) % 24, now.wMinute, (now.wHour + 16) % 24, now.wMinute,
      (now.wHour + 12) % 24, now.wMinute, (now.wHour + 14) % 24, now.wMinute, kName,
      kiosk::win32::Sha256Hex(photo).c_str()));
  portal.Change([&](Portal::State& state) {
    state.settings = kiosk::json::Parse(text).value_or(Value::Object());
    state.photo = photo;
  });
}

// Of what Windows knows; empty when there is no kiosk account, which ends the step.
std::wstring NeedAccount() {
  std::wstring sid = kiosk::state::ReadStateString(kiosk::state::kAccountSid);
  if (sid.empty()) {
    Asked::CannotRun("there is no kiosk account");
  }
  return sid;
}

void NeedPaired() {
  if (!kiosk::state::TokenIsStored()) {
    Asked::CannotRun("the terminal is not paired");
  }
}

std::vector<std::string> Beginning(const std::string& text) {
  std::vector<std::string> lines = hand::WorldLines();
  std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(text); });
  return lines;
}

void CheckAutomaticSignIn(Asked& asked) {
  NeedAccount();
  const auto text = [](const wchar_t* name) {
    return kiosk::state::ReadString(kiosk::account::kWinlogonKey, name).value_or(L"(none)");
  };
  asked.Same("AutoAdminLogon", text(kiosk::account::kAutoAdminLogon), L"1");
  asked.Same("DefaultUserName", text(kiosk::account::kDefaultUserName), L"NorvaneKiosk");
  asked.Same("DefaultPassword", text(kiosk::account::kDefaultPassword), L"(none)");
  asked.Same(
      "the welcome animation",
      kiosk::state::ReadDword(kiosk::account::kSystemPoliciesKey, kiosk::account::kFirstLogonAnimation).value_or(1), 0);
  asked.Same(
      "passwordless sign-in alone",
      kiosk::state::ReadDword(kiosk::account::kPasswordLessKey, kiosk::account::kPasswordLessVersion).value_or(1), 0);
}

const std::span<const Step> kKioskSteps{kSteps};

}  // namespace proof
