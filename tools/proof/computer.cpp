#include "tools/proof/computer.h"

#include "enrolment/kiosk_session.h"
#include "service/install.h"
#include "state/kiosk_state.h"
#include "state/os_version.h"
#include "tests/contract/contract.h"
#include "tools/proof/files.h"
#include "version.h"
#include "win32/hash.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <cpuid.h>
#include <dsrole.h>

#include <iterator>

namespace proof {
namespace {

using kiosk::json::Value;
using kiosk::win32::ServiceHandle;

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr ULONGLONG kRoom = ULONGLONG{200} * 1024 * 1024;  // bytes of disk

std::string RegistryText(const wchar_t* key, const wchar_t* name) {
  return kiosk::win32::ToNarrow(kiosk::state::ReadString(key, name).value_or(L""));
}

// By the bit that hypervisors set for their guests.
bool IsVirtual() noexcept {
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c >> 31) != 0;
}

bool HasBattery() noexcept {
  constexpr BYTE kNone = 128;
  constexpr BYTE kUnknown = 255;
  SYSTEM_POWER_STATUS status{};
  return GetSystemPowerStatus(&status) != 0 && status.BatteryFlag != kNone && status.BatteryFlag != kUnknown;
}

bool IsInDomain() noexcept {
  BYTE* raw = nullptr;
  if (DsRoleGetPrimaryDomainInformation(nullptr, DsRolePrimaryDomainInfoBasic, &raw) != ERROR_SUCCESS) {
    return false;
  }
  const DSROLE_MACHINE_ROLE role = reinterpret_cast<DSROLE_PRIMARY_DOMAIN_INFO_BASIC*>(raw)->MachineRole;
  DsRoleFreeMemory(raw);
  return role != DsRole_RoleStandaloneWorkstation && role != DsRole_RoleStandaloneServer;
}

// By the library of device management, which a Windows may lack.
bool IsManaged() noexcept {
  const kiosk::win32::Library library(LoadLibraryExW(L"mdmregistration.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
  using Ask = HRESULT(WINAPI*)(BOOL*, DWORD, wchar_t*);
  const auto ask = library ? reinterpret_cast<Ask>(reinterpret_cast<void*>(
                                 GetProcAddress(library.Get(), "IsDeviceRegisteredWithManagement")))
                           : nullptr;
  BOOL managed = FALSE;
  wchar_t user[256];
  return ask != nullptr && SUCCEEDED(ask(&managed, static_cast<DWORD>(std::size(user)), user)) && managed != 0;
}

bool HasDesktop() noexcept {
  USEROBJECTFLAGS flags{};
  DWORD needed = 0;
  return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof(flags), &needed) != 0 &&
         (flags.dwFlags & WSF_VISIBLE) != 0;
}

bool KeyExists(const wchar_t* key) noexcept {
  kiosk::win32::RegistryKey open;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, open.Put()) == ERROR_SUCCESS;
}

bool RestartIsPending() noexcept {
  return KeyExists(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate\\Auto Update\\RebootRequired") ||
         KeyExists(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component Based Servicing\\RebootPending");
}

bool KioskUserIsThere() {
  BYTE* raw = nullptr;
  const NET_API_STATUS status = NetUserGetInfo(nullptr, kiosk::enrolment::kKioskUser, 23, &raw);
  const kiosk::win32::NetBuffer owned(raw);
  return status == NERR_Success;
}

// Why this is nobody's disposable computer; null when it looks like one.
const char* WhyNeeded() {
  struct Look {
    bool (*is)() noexcept;
    const char* what;
  };
  constexpr Look kLooks[] = {
      {IsInDomain, "this computer is in a domain"},
      {IsManaged, "this computer is under a device management"},
      {HasBattery, "this computer has a battery"},
      {[]() noexcept { return !IsVirtual(); }, "this is no virtual machine"},
      {[]() noexcept { return !HasDesktop(); }, "there is no desktop where this runs"},
  };
  for (const Look& look : kLooks) {
    if (look.is()) {
      return look.what;
    }
  }
  return nullptr;
}

}  // namespace

Value Head(const std::wstring& product) {
  const std::optional<std::string> bytes = ReadFileText(product);
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  wchar_t language[LOCALE_NAME_MAX_LENGTH]{};
  GetSystemDefaultLocaleName(language, LOCALE_NAME_MAX_LENGTH);
  Value head = Value::Object();
  head.Set("version", NORVANE_VERSION_TEXT);
  head.Set("product", bytes ? kiosk::win32::Sha256Hex(*bytes) : "not beside the kit");
  head.Set("platform", contract::Name(contract::ThisPlatform()));
  head.Set("windows", kiosk::state::OsVersionText());
  head.Set("edition", RegistryText(kVersionKey, L"EditionID"));
  head.Set("language", kiosk::win32::ToNarrow(language));
  head.Set("virtual", IsVirtual());
  head.Set("joined", IsInDomain());
  head.Set("managed", IsManaged());
  head.Set("desktop", HasDesktop());
  head.Set("session", session);
  head.Set("defender", KeyExists(L"SOFTWARE\\Microsoft\\Windows Defender\\Real-Time Protection"));
  return head;
}

std::string WhyNotHere(bool named, const std::wstring& product) {
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  if (!manager) {
    return "this needs an administrator's rights (" + std::to_string(GetLastError()) + ")";
  }
  if (!IsThere(product)) {
    return "there is no NorvaneKiosk.exe beside the kit";
  }
  if (kiosk::state::TokenIsStored()) {
    return "this computer is paired with a portal; it is somebody's terminal";
  }
  if (ServiceHandle(OpenServiceW(manager.Get(), kiosk::service::kServiceName, SERVICE_QUERY_STATUS))) {
    return "the service NorvaneKiosk is installed here already; uninstall it first";
  }
  if (KioskUserIsThere()) {
    return "there is a user NorvaneKiosk already";
  }
  if (RestartIsPending()) {
    return "Windows waits for a restart; restart it first";
  }
  ULARGE_INTEGER room{};
  if (GetDiskFreeSpaceExW(L"C:\\", &room, nullptr, nullptr) != 0 && room.QuadPart < kRoom) {
    return "the disk is full: less than 200 MB are free";
  }
  const char* const needed = named ? nullptr : WhyNeeded();
  return needed != nullptr ? std::string(needed) + "; if nobody needs it, type its name: --computer NAME"
                           : std::string();
}

DWORD KioskSession() {
  WTS_SESSION_INFOW* sessions = nullptr;
  DWORD count = 0;
  if (WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count) == 0) {
    return 0;
  }
  const kiosk::win32::WtsMemory owned(sessions);
  for (DWORD i = 0; i < count; ++i) {
    wchar_t* name = nullptr;
    DWORD size = 0;
    if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, sessions[i].SessionId, WTSUserName, &name, &size) != 0) {
      const kiosk::win32::WtsMemory text(name);
      if (kiosk::win32::EqualIgnoringCase(name, kiosk::enrolment::kKioskUser)) {
        return sessions[i].SessionId;
      }
    }
  }
  return 0;
}

}  // namespace proof
