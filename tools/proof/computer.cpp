#include "tools/proof/computer.h"

#include "enrolment/kiosk_session.h"
#include "service/install.h"
#include "state/kiosk_state.h"
#include "state/os_version.h"
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "tools/proof/files.h"
#include "tools/proof/hand.h"
#include "tools/proof/services.h"
#include "version.h"
#include "win32/hash.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

namespace proof {
namespace {

using kiosk::json::Value;

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr ULONGLONG kRoom = ULONGLONG{200} * 1024 * 1024;  // bytes of disk

bool KeyExists(const wchar_t* key) noexcept {
  kiosk::win32::RegistryKey open;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, open.Put()) == ERROR_SUCCESS;
}

bool RestartIsPending() noexcept {
  return KeyExists(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WindowsUpdate\\Auto Update\\RebootRequired") ||
         KeyExists(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Component Based Servicing\\RebootPending");
}

// Why this is nobody's disposable computer; null when it looks like one.
const char* WhyNeeded(const hand::Traits& traits) {
  return traits.inDomain     ? "this computer is in a domain"
         : traits.managed    ? "this computer is under a device management"
         : traits.battery    ? "this computer has a battery"
         : !traits.isVirtual ? "this is no virtual machine"
         : !traits.desktop   ? "there is no desktop where this runs"
                             : nullptr;
}

}  // namespace

Value Head(const std::wstring& product) {
  const std::optional<std::string> bytes = ReadFileText(product);
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  wchar_t language[LOCALE_NAME_MAX_LENGTH]{};
  GetSystemDefaultLocaleName(language, LOCALE_NAME_MAX_LENGTH);
  const hand::Traits traits = hand::LookAround();
  Value head = Value::Object();
  head.Set("version", NORVANE_VERSION_TEXT);
  head.Set("product", bytes ? kiosk::win32::Sha256Hex(*bytes) : "not beside the kit");
  head.Set("platform", contract::Name(contract::ThisPlatform()));
  head.Set("windows", kiosk::state::OsVersionText());
  head.Set("edition", kiosk::win32::ToNarrow(kiosk::state::ReadString(kVersionKey, L"EditionID").value_or(L"")));
  head.Set("language", kiosk::win32::ToNarrow(language));
  head.Set("virtual", traits.isVirtual);
  head.Set("joined", traits.inDomain);
  head.Set("managed", traits.managed);
  head.Set("desktop", traits.desktop);
  head.Set("session", session);
  head.Set("defender", KeyExists(L"SOFTWARE\\Microsoft\\Windows Defender\\Real-Time Protection"));
  return head;
}

std::string WhyNotHere(bool named, const std::wstring& product) {
  const hand::Traits traits = hand::LookAround();
  if (traits.noRights != ERROR_SUCCESS) {
    return "this needs an administrator's rights (" + std::to_string(traits.noRights) + ")";
  }
  ULARGE_INTEGER room{};
  const struct {
    bool is;
    const char* why;
  } kReasons[] = {
      {!IsThere(product), "there is no NorvaneKiosk.exe beside the kit"},
      {kiosk::state::TokenIsStored(), "this computer is paired with a portal; it is somebody's terminal"},
      {static_cast<bool>(OpenExisting(kiosk::service::kServiceName, SERVICE_QUERY_STATUS)),
       "the service NorvaneKiosk is installed here already; uninstall it first"},
      {!contract::SidOfUser(kiosk::enrolment::kKioskUser).empty(), "there is a user NorvaneKiosk already"},
      {RestartIsPending(), "Windows waits for a restart; restart it first"},
      {GetDiskFreeSpaceExW(L"C:\\", &room, nullptr, nullptr) != 0 && room.QuadPart < kRoom,
       "the disk is full: less than 200 MB are free"},
  };
  for (const auto& each : kReasons) {
    if (each.is) {
      return each.why;
    }
  }
  const char* const needed = named ? nullptr : WhyNeeded(traits);
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
    if (kiosk::enrolment::IsKioskSession(sessions[i].SessionId)) {
      return sessions[i].SessionId;
    }
  }
  return 0;
}

bool IsMember(const wchar_t* group) {
  const kiosk::win32::LocalMemory sid = kiosk::win32::ParseSid(group);
  BOOL member = FALSE;
  return CheckTokenMembership(nullptr, sid.Get(), &member) != 0 && member != 0;
}

}  // namespace proof
