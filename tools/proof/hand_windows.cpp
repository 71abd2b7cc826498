// The kit's hand on a real Windows, or Wine.
#include <winsock2.h>

#include "tools/proof/hand.h"

#include "account/kiosk_account.h"
#include "account/sign_in_secret.h"
#include "json/serialise.h"
#include "power/active_scheme.h"
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "tools/proof/computer.h"
#include "tools/proof/journal.h"
#include "tools/proof/product.h"
#include "win32/com.h"
#include "win32/folder_entries.h"
#include "win32/owners.h"
#include "win32/privilege.h"
#include "win32/program_path.h"
#include "win32/random.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <cpuid.h>
#include <dsrole.h>
#include <iphlpapi.h>
#include <taskschd.h>

#include <array>

namespace proof::hand {
namespace {

using kiosk::json::Value;
using kiosk::win32::ComPtr;
using kiosk::win32::KernelHandle;
using kiosk::win32::NetBuffer;
using kiosk::win32::ToNarrow;

constexpr DWORD kRestartTime = 300'000;  // ms
constexpr DWORD kAskTime = 120'000;

using Lines = std::vector<std::string>;

// What one of the calls that list accounts hands out; a line that says so where it fails.
template <typename Record, typename Call, typename Each>
void ForEachOf(Lines& lines, const char* what, Call call, Each each) {
  BYTE* raw = nullptr;
  DWORD read = 0;
  DWORD total = 0;
  const NET_API_STATUS status = call(&raw, &read, &total);
  const NetBuffer owned(raw);
  if (status != NERR_Success) {
    lines.push_back(std::string(what) + " cannot be listed (" + std::to_string(status) + ")");
    return;
  }
  for (DWORD i = 0; i < read; ++i) {
    each(reinterpret_cast<const Record*>(raw)[i]);
  }
}

std::string OrEmpty(const wchar_t* text) { return text != nullptr ? ToNarrow(text) : std::string(); }

std::string SidOf(const wchar_t* account) {
  std::array<BYTE, SECURITY_MAX_SID_SIZE> sid{};
  std::array<wchar_t, 256> domain{};
  DWORD sidSize = sid.size();
  DWORD domainSize = domain.size();
  SID_NAME_USE use{};
  return LookupAccountNameW(nullptr, account, sid.data(), &sidSize, domain.data(), &domainSize, &use) != 0
             ? ToNarrow(kiosk::win32::SidText(sid.data()))
             : ToNarrow(account);
}

void AddAccounts(Lines& lines) {
  ForEachOf<USER_INFO_20>(
      lines, "users",
      [](BYTE** raw, DWORD* read, DWORD* total) {
        return NetUserEnum(nullptr, 20, FILTER_NORMAL_ACCOUNT, raw, MAX_PREFERRED_LENGTH, read, total, nullptr);
      },
      [&](const USER_INFO_20& user) {
        lines.push_back("user " + OrEmpty(user.usri20_name) + " " + SidOf(user.usri20_name) + " \"" +
                        OrEmpty(user.usri20_full_name) + "\" " + std::to_string(user.usri20_flags));
      });
  ForEachOf<LOCALGROUP_INFO_0>(
      lines, "groups",
      [](BYTE** raw, DWORD* read, DWORD* total) {
        return NetLocalGroupEnum(nullptr, 0, raw, MAX_PREFERRED_LENGTH, read, total, nullptr);
      },
      [&](const LOCALGROUP_INFO_0& group) {
        ForEachOf<LOCALGROUP_MEMBERS_INFO_0>(
            lines, "members",
            [&](BYTE** raw, DWORD* read, DWORD* total) {
              return NetLocalGroupGetMembers(nullptr, group.lgrpi0_name, 0, raw, MAX_PREFERRED_LENGTH, read, total,
                                             nullptr);
            },
            [&](const LOCALGROUP_MEMBERS_INFO_0& member) {
              lines.push_back("member " + SidOf(group.lgrpi0_name) + " " +
                              ToNarrow(kiosk::win32::SidText(member.lgrmi0_sid)));
            });
      });
}

void AddTasks(Lines& lines) {
  const kiosk::win32::ComApartment apartment;
  ComPtr<ITaskService> service;
  ComPtr<ITaskFolder> folder;
  ComPtr<IRegisteredTaskCollection> tasks;
  const VARIANT none{};
  const kiosk::win32::Bstr root = kiosk::win32::MakeBstr(L"\\");
  LONG count = 0;
  if (FAILED(kiosk::win32::CreateInProcess(CLSID_TaskScheduler, IID_ITaskService, service)) ||
      FAILED(service->Connect(none, none, none, none)) || FAILED(service->GetFolder(root.Get(), folder.Put())) ||
      FAILED(folder->GetTasks(TASK_ENUM_HIDDEN, tasks.Put())) || FAILED(tasks->get_Count(&count))) {
    lines.emplace_back("tasks cannot be listed");
    return;
  }
  for (LONG i = 1; i <= count; ++i) {
    VARIANT index{};
    index.vt = VT_I4;
    index.lVal = i;
    ComPtr<IRegisteredTask> task;
    BSTR name = nullptr;
    if (SUCCEEDED(tasks->get_Item(index, task.Put())) && SUCCEEDED(task->get_Name(&name))) {
      const kiosk::win32::Bstr owned(name);
      lines.push_back("task " + ToNarrow(kiosk::win32::BstrText(name)));
    }
  }
}

void AddAdapters(Lines& lines) {
  std::vector<std::max_align_t> room(65'536 / sizeof(std::max_align_t));
  ULONG size = static_cast<ULONG>(room.size() * sizeof(std::max_align_t));
  auto* const first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(room.data());
  if (GetAdaptersAddresses(AF_INET, GAA_FLAG_INCLUDE_GATEWAYS, nullptr, first, &size) != NO_ERROR) {
    lines.emplace_back("adapters cannot be listed");
    return;
  }
  for (const IP_ADAPTER_ADDRESSES* adapter = first; adapter != nullptr; adapter = adapter->Next) {
    std::string line = "adapter " + std::string(adapter->AdapterName) + " dhcp " +
                       std::to_string((adapter->Flags & IP_ADAPTER_DHCP_ENABLED) != 0 ? 1 : 0);
    const auto add = [&line](const auto* each) {
      for (; each != nullptr; each = each->Next) {
        line += " " + std::to_string(reinterpret_cast<const sockaddr_in*>(each->Address.lpSockaddr)->sin_addr.s_addr);
      }
    };
    add(adapter->FirstUnicastAddress);
    add(adapter->FirstGatewayAddress);
    add(adapter->FirstDnsServerAddress);
    lines.push_back(line);
  }
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

// A user of the kit's own for the run, with a new password each time: LocalSystem is no person.
KernelHandle PersonsToken(DWORD kindOfLogon) {
  std::array<std::uint8_t, 12> random{};
  kiosk::win32::FillRandom(random.data(), random.size());
  std::wstring password = L"Aa1!";
  for (const std::uint8_t byte : random) {
    password += static_cast<wchar_t>(L'a' + byte % 26);
  }
  USER_INFO_1003 change{password.data()};
  if (NetUserSetInfo(nullptr, kPerson, 1003, reinterpret_cast<BYTE*>(&change), nullptr) == NERR_UserNotFound &&
      NoteUser(kPerson)) {
    contract::AddUser(kPerson, password);
    // Signing in is a right of the group Users.
    const kiosk::win32::LocalMemory sid = kiosk::win32::ParseSid(contract::SidOfUser(kPerson).c_str());
    LOCALGROUP_MEMBERS_INFO_0 member{sid.Get()};
    NetLocalGroupAddMembers(nullptr, kiosk::account::WellKnownGroupName(L"S-1-5-32-545").c_str(), 0,
                            reinterpret_cast<BYTE*>(&member), 1);
  }
  KernelHandle token;
  LogonUserW(kPerson, L".", password.c_str(), kindOfLogon, LOGON32_PROVIDER_DEFAULT, token.Put());
  SecureZeroMemory(password.data(), password.size() * sizeof(wchar_t));
  return token;
}

}  // namespace

Traits LookAround() {
  const kiosk::win32::ServiceHandle manager(
      OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  return {.noRights = manager ? ERROR_SUCCESS : GetLastError(),
          .inDomain = IsInDomain(),
          .managed = IsManaged(),
          .battery = HasBattery(),
          .isVirtual = IsVirtual(),
          .desktop = HasDesktop()};
}

std::vector<std::string> WorldLines() {
  Lines lines;
  AddAccounts(lines);
  AddTasks(lines);
  AddAdapters(lines);
  if (!kiosk::account::PresentSecretDigest().empty()) {
    lines.emplace_back("secret DefaultPassword");
  }
  if (const kiosk::power::ActiveScheme scheme; scheme) {
    wchar_t text[64];
    StringFromGUID2(*scheme.Id(), text, 64);
    lines.push_back("scheme " + ToNarrow(text));
  }
  for (const kiosk::win32::FolderEntry& each : kiosk::win32::EntriesOf(L"C:\\Users")) {
    lines.push_back("folder " + ToNarrow(each.path));
  }
  return lines;
}

kioskctl::Answer AskAsPerson(const Value& request) {
  if (IsMember(L"S-1-5-4")) {  // INTERACTIVE
    return AskService(request);
  }
  kioskctl::Answer answer{.outcome = kioskctl::Outcome::kNotAllowed, .reply = {}};
  AsSecondUser(true, [&] { answer = AskService(request); });
  return answer;
}

std::optional<kioskctl::Answer> AskAsSystem(const Value& request) {
  return IsMember(L"S-1-5-18") ? std::optional(AskService(request)) : std::nullopt;
}

bool AsSecondUser(bool interactive, const std::function<void()>& action) {
  // Wine knows no other user.
  if (contract::ThisPlatform() != contract::Platform::kWindows) {
    return false;
  }
  // For the rest of this process. While Windows starts it may not sign anybody in yet.
  static KernelHandle tokens[2];
  KernelHandle& token = tokens[interactive ? 1 : 0];
  if (!token) {
    token = PersonsToken(interactive ? LOGON32_LOGON_INTERACTIVE : LOGON32_LOGON_NETWORK);
  }
  if (!token || ImpersonateLoggedOnUser(token.Get()) == 0) {
    return false;
  }
  const contract::AtEnd revert([] { RevertToSelf(); });
  action();
  return true;
}

std::optional<bool> AskAsKiosk(const Value& request) {
  KernelHandle token;
  const DWORD session = KioskSession();
  if (session == 0 || WTSQueryUserToken(session, token.Put()) == 0) {
    return std::nullopt;
  }
  // The quotation marks of the request as a command line takes them.
  std::wstring command = L"\"" + kiosk::win32::ProgramPath() + L"\" --ask \"";
  for (const wchar_t sign : kiosk::win32::ToWide(kiosk::json::Serialise(request))) {
    command += sign == L'"' ? std::wstring(L"\\\"") : std::wstring(1, sign);
  }
  command += L"\"";
  wchar_t desktop[] = L"winsta0\\default";  // by itself Windows takes one of a service
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.lpDesktop = desktop;
  PROCESS_INFORMATION process{};
  if (CreateProcessAsUserW(token.Get(), nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                           L"C:\\", &startup, &process) == 0) {
    return std::nullopt;
  }
  const KernelHandle thread(process.hThread);
  const KernelHandle child(process.hProcess);
  DWORD code = 1;
  return WaitForSingleObject(child.Get(), kAskTime) == WAIT_OBJECT_0 && GetExitCodeProcess(child.Get(), &code) != 0 &&
         code == 0;
}

bool Restart(bool byProduct) {
  wchar_t message[] = L"The proof of the kiosk restarts this computer.";
  if (!byProduct && (!kiosk::win32::EnablePrivilege(SE_SHUTDOWN_NAME) ||
                     InitiateSystemShutdownExW(nullptr, message, 0, TRUE, TRUE, SHTDN_REASON_FLAG_PLANNED) == 0)) {
    return false;
  }
  Sleep(kRestartTime);  // Windows ends this process meanwhile
  return false;
}

}  // namespace proof::hand
