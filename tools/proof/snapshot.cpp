#include "tools/proof/snapshot.h"

#include "account/winlogon.h"
#include "state/kiosk_state.h"
#include "state/registry.h"
#include "text/text.h"
#include "tools/proof/hand.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace proof {
namespace {

using kiosk::win32::RegistryKey;
using kiosk::win32::ToNarrow;

constexpr wchar_t kProfileList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

struct Key {
  const wchar_t* path;
  const wchar_t* below = nullptr;  // of the keys below it, this value of each
};
constexpr Key kKeys[] = {
    {kiosk::account::kWinlogonKey},
    {kiosk::account::kPasswordLessKey},
    {kiosk::account::kSystemPoliciesKey},
    {L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate"},
    {L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate\\AU"},
    {L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections"},
    {kiosk::state::kStateKey},
    {L"SOFTWARE\\Norvane\\Tessaly\\Update"},
    {L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Parameters"},
    {kProfileList, L"ProfileImagePath"},
};

// Windows' own notes of who signed in, and when it went down.
constexpr const wchar_t* kNotes[] = {L"AutoLogonSID", L"LastUsedUsername", L"LastLogOffEndTimePerfCounter",
                                     L"ShutdownFlags", L"ShutdownStopTimePerfCounter"};

void AddValue(std::vector<std::string>& lines, const std::wstring& path, HKEY key, const wchar_t* name) {
  kiosk::state::RawValue value;
  if (kiosk::state::ReadRaw(key, name, value) != ERROR_SUCCESS ||
      std::any_of(std::begin(kNotes), std::end(kNotes),
                  [name](const wchar_t* note) { return kiosk::win32::EqualIgnoringCase(note, name); })) {
    return;
  }
  const bool secret = (std::wstring_view(name).find(L"Password") != std::wstring_view::npos && value.type == REG_SZ) ||
                      path == kiosk::state::kStateKey;
  lines.push_back("HKLM\\" + ToNarrow(path + L"\\" + name) + " = " +
                  (secret ? "(withheld)" : std::to_string(value.type) + ":" + kiosk::text::Hex(value.bytes)));
}

void AddKey(std::vector<std::string>& lines, const Key& key) {
  RegistryKey open;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.path, 0, KEY_READ, open.Put()) != ERROR_SUCCESS) {
    return;
  }
  lines.push_back("HKLM\\" + ToNarrow(key.path));
  wchar_t name[512];
  DWORD size = 512;
  for (DWORD i = 0; key.below == nullptr &&
                    RegEnumValueW(open.Get(), i, name, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++i, size = 512) {
    AddValue(lines, key.path, open.Get(), name);
  }
  for (DWORD i = 0; key.below != nullptr && RegEnumKeyW(open.Get(), i, name, 512) == ERROR_SUCCESS; ++i) {
    RegistryKey child;
    if (RegOpenKeyExW(open.Get(), name, 0, KEY_READ, child.Put()) == ERROR_SUCCESS) {
      AddValue(lines, std::wstring(key.path) + L"\\" + name, child.Get(), key.below);
    }
  }
}

// Those that Windows makes for each user's session come and go.
void AddServices(std::vector<std::string>& lines) {
  const kiosk::win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE));
  DWORD needed = 0;
  DWORD count = 0;
  DWORD next = 0;
  std::vector<BYTE> room(262'144);  // more than the call ever fills
  if (!manager ||
      EnumServicesStatusExW(manager.Get(), SC_ENUM_PROCESS_INFO, SERVICE_WIN32_OWN_PROCESS, SERVICE_STATE_ALL,
                            room.data(), static_cast<DWORD>(room.size()), &needed, &count, &next, nullptr) == 0) {
    lines.emplace_back("services cannot be listed");
    return;
  }
  const auto* services = reinterpret_cast<const ENUM_SERVICE_STATUS_PROCESSW*>(room.data());
  for (DWORD i = 0; i < count; ++i) {
    constexpr DWORD kOfAUser = 0x40;  // SERVICE_USER_SERVICE
    if ((services[i].ServiceStatusProcess.dwServiceType & kOfAUser) == 0) {
      lines.push_back("service " + ToNarrow(services[i].lpServiceName));
    }
  }
}

// What Windows' own programs bring along when they update themselves, and the kit's service.
constexpr const char* kOthers[] = {
    "task MicrosoftEdge",    "task OneDrive ",    "task User_Feed_Synchronization-", "service edgeupdate",
    "service MicrosoftEdge", "service MDCoreSvc", "service NorvaneProofAgent"};

}  // namespace

std::vector<std::string> Snapshot() {
  std::vector<std::string> lines = hand::WorldLines();
  for (const Key& key : kKeys) {
    AddKey(lines, key);
  }
  AddServices(lines);
  std::erase_if(lines, [](const std::string& line) {
    return std::any_of(std::begin(kOthers), std::end(kOthers),
                       [&](const char* others) { return line.starts_with(others); });
  });
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<std::string> Differences(const std::vector<std::string>& before, const std::vector<std::string>& after) {
  std::vector<std::string> lines;
  const auto add = [&lines](const char* sign, const auto& those, const auto& without) {
    std::vector<std::string> only;
    std::set_difference(those.begin(), those.end(), without.begin(), without.end(), std::back_inserter(only));
    std::transform(only.begin(), only.end(), std::back_inserter(lines),
                   [sign](const std::string& line) { return sign + line; });
  };
  add("- ", before, after);
  add("+ ", after, before);
  return lines;
}

}  // namespace proof
