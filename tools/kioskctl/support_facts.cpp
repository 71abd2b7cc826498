#include "support_facts.h"

#include "check.h"
#include "exchange.h"
#include "file_version.h"

#include "account/winlogon.h"
#include "branding/branding_folder.h"
#include "json/serialise.h"
#include "log/log.h"
#include "log/log_settings.h"
#include "log/shipper/shipper_settings.h"
#include "pipe/signature.h"
#include "service/install.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "state/os_version.h"
#include "text/text.h"
#include "win32/clock.h"
#include "win32/com.h"
#include "win32/grow.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <aclapi.h>
#include <sddl.h>
#include <taskschd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string_view>

namespace kioskctl {
namespace {

using kiosk::state::RawValue;
using kiosk::win32::ToNarrow;

std::string TimeText(const SYSTEMTIME& time) {
  char text[40];
  static_cast<void>(std::snprintf(text, std::size(text), "%04d-%02d-%02d %02d:%02d:%02d", time.wYear, time.wMonth,
                                  time.wDay, time.wHour, time.wMinute, time.wSecond));
  return text;
}

// Values that are, or may be, a secret of the terminal or of its owner. Other programs keep values in some of the keys.
bool IsSecret(const std::wstring& name) {
  constexpr std::wstring_view kSecrets[] = {L"token", L"password", L"secret", L"digest", L"accountsid"};
  std::wstring lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(), kiosk::text::AsciiLower<wchar_t>);
  return std::any_of(std::begin(kSecrets), std::end(kSecrets),
                     [&](std::wstring_view each) { return lower.find(each) != std::wstring::npos; });
}

// Bytes may hold anything, names of users too, in a form in which nothing finds them.
std::string Content(const RawValue& value) {
  if (const auto text = value.Text()) {
    return "\"" + ToNarrow(*text) + "\"";
  }
  if (const auto number = value.Dword()) {
    return std::to_string(*number);
  }
  if (const auto number = value.Qword()) {
    return std::to_string(*number) + " = " + FileTimeText(*number);
  }
  return "not shown";
}

std::string ValueLine(const std::wstring& name, const RawValue& value) {
  return "  " + ToNarrow(name) + " (type " + std::to_string(value.type) + ", " + std::to_string(value.bytes.size()) +
         " bytes) " + (IsSecret(name) && !value.Dword() ? "withheld" : Content(value)) + "\n";
}

std::string WholeKey(const wchar_t* subkey) {
  std::string text = "HKLM\\" + ToNarrow(subkey) + "\n";
  kiosk::win32::RegistryKey key;
  const LSTATUS opened = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, KEY_QUERY_VALUE, key.Put());
  if (opened == ERROR_FILE_NOT_FOUND) {
    return text + "  does not exist\n";
  }
  if (opened != ERROR_SUCCESS) {
    return text + "  cannot be read; run this as an administrator" + ErrorText(static_cast<unsigned long>(opened)) +
           "\n";
  }
  std::wstring name(16384, L'\0');
  for (DWORD index = 0;; ++index) {
    auto size = static_cast<DWORD>(name.size());
    if (RegEnumValueW(key.Get(), index, name.data(), &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
      return text;
    }
    const std::wstring valueName = name.substr(0, size);
    RawValue value;
    if (kiosk::state::ReadRaw(key.Get(), valueName.c_str(), value) == ERROR_SUCCESS) {
      text += ValueLine(valueName, value);
    }
  }
}

struct NamedValue {
  const wchar_t* subkey;
  const wchar_t* name;
};

constexpr wchar_t kUpdatePolicies[] = L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate";

constexpr NamedValue kWindowsSettings[] = {
    {kiosk::account::kWinlogonKey, kiosk::account::kAutoAdminLogon},
    {kiosk::account::kWinlogonKey, kiosk::account::kDefaultUserName},
    {kiosk::account::kWinlogonKey, kiosk::account::kDefaultDomainName},
    {kiosk::account::kWinlogonKey, kiosk::account::kDefaultPassword},
    {kiosk::account::kWinlogonKey, kiosk::account::kAutoLogonCount},
    {kiosk::account::kPasswordLessKey, L"DevicePasswordLessBuildVersion"},
    {kiosk::account::kSystemPoliciesKey, L"EnableFirstLogonAnimation"},
    {kiosk::account::kSystemPoliciesKey, L"HideFastUserSwitching"},
    {kUpdatePolicies, L"SetActiveHours"},
    {kUpdatePolicies, L"ActiveHoursStart"},
    {kUpdatePolicies, L"ActiveHoursEnd"},
    {kUpdatePolicies, L"ActiveHoursMaxRange"},
    {L"SOFTWARE\\Policies\\Microsoft\\Windows\\WindowsUpdate\\AU", L"NoAutoRebootWithLoggedOnUsers"},
    {L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Power", L"HiberbootEnabled"},
    {L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Parameters", L"NtpServer"},
};

constexpr const wchar_t* kTasks[] = {L"Norvane Kiosk Sleep", L"Norvane Kiosk Wake"};

// The caller is in a COM apartment.
HRESULT RootOfTasks(kiosk::win32::ComPtr<ITaskFolder>& root) {
  kiosk::win32::ComPtr<ITaskService> service;
  VARIANT none{};
  HRESULT result = kiosk::win32::CreateInProcess(__uuidof(TaskScheduler), __uuidof(ITaskService), service);
  if (SUCCEEDED(result)) {
    result = service->Connect(none, none, none, none);
  }
  return FAILED(result) ? result : service->GetFolder(kiosk::win32::MakeBstr(L"\\").Get(), root.Put());
}

HRESULT ReadTask(ITaskFolder* folder, const wchar_t* name, kiosk::win32::Bstr& xml) {
  kiosk::win32::ComPtr<IRegisteredTask> task;
  const HRESULT result = folder->GetTask(kiosk::win32::MakeBstr(name).Get(), task.Put());
  return FAILED(result) ? result : task->get_Xml(xml.Put());
}

std::string SignatureText() {
  const std::wstring path = ServiceFile();
  if (path.empty()) {
    return "service file: none installed\n";
  }
  const kiosk::win32::FileHandle file = kiosk::pipe::HoldImage(path.c_str());
  const auto publisher = file ? kiosk::pipe::TrustedPublisherOfFile(path.c_str(), file.Get()) : std::nullopt;
  return "service file: " + ToNarrow(path) + "\n  " +
         (publisher ? "signed by " + ToNarrow(*publisher)
          : file    ? "no signature that Windows trusts"
                    : "cannot be opened") +
         "\n";
}

std::string ClientCertificateText() {
  const std::wstring thumbprint = kiosk::log::ReadSettingString(L"ClientCertThumbprint");
  if (thumbprint.empty()) {
    return "client certificate of central logging: none set\n";
  }
  const std::string text = "client certificate of central logging: " + ToNarrow(thumbprint) + "\n  ";
  std::optional<kiosk::log::shipper::Thumbprint> hash = kiosk::log::shipper::ParseThumbprint(thumbprint);
  if (!hash) {
    return text + "not a thumbprint of 40 hexadecimal digits\n";
  }
  CRYPT_HASH_BLOB wanted{static_cast<DWORD>(hash->size()), hash->data()};
  const kiosk::win32::CertStore store(
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                    CERT_SYSTEM_STORE_LOCAL_MACHINE | CERT_STORE_READONLY_FLAG | CERT_STORE_OPEN_EXISTING_FLAG, L"MY"));
  const kiosk::win32::Certificate found(
      store ? CertFindCertificateInStore(store.Get(), X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &wanted, nullptr)
            : nullptr);
  if (!found) {
    return text + "not in the computer's personal store" + ErrorText(GetLastError()) + "\n";
  }
  DWORD needed = 0;
  const bool hasKey = CertGetCertificateContextProperty(found.Get(), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &needed) != 0;
  return text + "good until " + FileTimeText(kiosk::win32::FileTimeValue(found.Get()->pCertInfo->NotAfter)) +
         (hasKey ? ", with its private key\n" : ", WITHOUT a private key\n");
}

std::string Descriptor(const std::wstring& path) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error =
      GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                            nullptr, nullptr, nullptr, nullptr, &descriptor);
  const kiosk::win32::LocalMemory owner(descriptor);
  if (error != ERROR_SUCCESS) {
    return ToNarrow(path) + ": cannot be read" + ErrorText(error) + "\n";
  }
  wchar_t* sddl = nullptr;
  if (ConvertSecurityDescriptorToStringSecurityDescriptorW(
          descriptor, SDDL_REVISION_1, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &sddl, nullptr) == 0) {
    return ToNarrow(path) + ": no text for its permissions" + ErrorText(GetLastError()) + "\n";
  }
  const kiosk::win32::LocalMemory text(sddl);
  return ToNarrow(path) + "\n  " + ToNarrow(sddl) + "\n";
}

// As Windows names itself, in values that "winver" shows too.
std::string EditionText() {
  constexpr wchar_t kWindows[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
  std::string text;
  for (const wchar_t* name : {L"ProductName", L"EditionID", L"DisplayVersion", L"CurrentBuild", L"UBR"}) {
    RawValue value;
    if (kiosk::state::ReadValue(kWindows, name, value) == ERROR_SUCCESS) {
      text += "  " + ToNarrow(name) + " " + Content(value) + "\n";
    }
  }
  return text;
}

}  // namespace

std::string FileTimeText(std::uint64_t value) {
  const FILETIME time = kiosk::win32::ToFileTime(value);
  SYSTEMTIME split;
  return FileTimeToSystemTime(&time, &split) != 0 ? TimeText(split) + " UTC" : std::to_string(value);
}

std::string ComputerFacts() {
  SYSTEMTIME utc;
  SYSTEMTIME local;
  GetSystemTime(&utc);
  GetLocalTime(&local);
  ULARGE_INTEGER room{};
  const bool known = GetDiskFreeSpaceExW(L"C:\\", &room, nullptr, nullptr) != 0;
  return std::string(kProgram) + " " + kiosk::log::kVersion + "\nservice " + FileVersion(ServiceFile()) + "\nclient " +
         FileVersion(kiosk::state::ClientInstallFolder() + L"\\NorvaneTessalyClient.exe") + "\nWindows " +
         kiosk::state::OsVersionText() + "\n" + EditionText() + "time " + TimeText(utc) + " UTC, " + TimeText(local) +
         " local\nrunning for " + std::to_string(kiosk::win32::TickCount() / 60'000) +
         " min\nfree on C: " + (known ? std::to_string(room.QuadPart / 1'048'576) + " MB\n" : "unknown\n");
}

std::string ServiceFacts() {
  const kiosk::win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const kiosk::win32::ServiceHandle service(
      manager ? OpenServiceW(manager.Get(), kiosk::service::kServiceName, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG)
              : nullptr);
  if (!service) {
    return "the service manager does not show the service" + ErrorText(GetLastError()) + "\n";
  }
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  std::string text;
  if (QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                           &needed) != 0) {
    text = "state " + std::to_string(status.dwCurrentState) +
           " (1 stopped, 2 starting, 3 stopping, 4 running)\nprocess " + std::to_string(status.dwProcessId) +
           "\nexit code " + std::to_string(status.dwWin32ExitCode) + "\n";
  }
  std::vector<BYTE> buffer;
  const DWORD error = kiosk::win32::CallGrowing(buffer, [&](BYTE* out, DWORD* size) -> DWORD {
    const DWORD room = *size;
    if (QueryServiceConfigW(service.Get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(out), room, size) == 0) {
      return GetLastError();
    }
    *size = room;  // which the call may have overwritten with 0
    return ERROR_SUCCESS;
  });
  if (error != ERROR_SUCCESS) {
    return text + "its configuration cannot be read" + ErrorText(error) + "\n";
  }
  const auto* config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data());
  return text + "start type " + std::to_string(config->dwStartType) + " (2 automatic, 3 manual, 4 disabled)\nprogram " +
         ToNarrow(config->lpBinaryPathName) + "\naccount " + ToNarrow(config->lpServiceStartName) + "\n";
}

// Ask would wait for a service that is starting, and may be stuck there.
std::string StatusFacts() {
  const ServiceState service = QueryService();
  if (service.known && service.state != SERVICE_RUNNING) {
    return std::string("not asked: the service ") + StateText(service.state) + "\n";
  }
  const Answer answer = Ask(kiosk::text::Secret(R"({"cmd":"status"})"), kStatusWait);
  return answer.outcome == Outcome::kReply ? kiosk::json::Serialise(answer.reply) + "\n"
                                           : "no answer" + ErrorText(answer.error) + "\n";
}

std::string StateFacts() { return WholeKey(kiosk::state::kStateKey); }

std::string SettingsFacts() {
  std::string text = WholeKey(kiosk::state::kPolicyKey);
  for (const wchar_t* key : kiosk::log::kSettingsKeys) {
    text += WholeKey(key);
  }
  text += WholeKey(L"SOFTWARE\\Norvane\\Tessaly\\Update");
  for (const NamedValue& setting : kWindowsSettings) {
    RawValue value;
    const LSTATUS status = kiosk::state::ReadValue(setting.subkey, setting.name, value);
    text +=
        ToNarrow(setting.subkey) + "\n" +
        (status == ERROR_SUCCESS          ? ValueLine(setting.name, value)
         : status == ERROR_FILE_NOT_FOUND ? "  " + ToNarrow(setting.name) + " not set\n"
                                          : "  cannot be read" + ErrorText(static_cast<unsigned long>(status)) + "\n");
  }
  return text;
}

std::string TaskFacts() {
  const kiosk::win32::ComApartment apartment;
  kiosk::win32::ComPtr<ITaskFolder> root;
  if (const HRESULT result = RootOfTasks(root); FAILED(result)) {
    return "Task Scheduler cannot be reached" + ErrorText(static_cast<unsigned long>(result)) + "\n";
  }
  std::string text;
  for (const wchar_t* name : kTasks) {
    kiosk::win32::Bstr xml;
    const HRESULT result = ReadTask(root.Get(), name, xml);
    text += ToNarrow(name) + ": " +
            (SUCCEEDED(result) ? "\n" + ToNarrow(kiosk::win32::BstrText(xml.Get())) + "\n"
                               : "none (" + kiosk::win32::HresultText(result) + ")\n");
  }
  return text;
}

bool TasksAreThere() {
  const kiosk::win32::ComApartment apartment;
  kiosk::win32::ComPtr<ITaskFolder> root;
  return SUCCEEDED(RootOfTasks(root)) && std::ranges::all_of(kTasks, [&root](const wchar_t* name) {
           kiosk::win32::ComPtr<IRegisteredTask> task;
           return SUCCEEDED(root->GetTask(kiosk::win32::MakeBstr(name).Get(), task.Put()));
         });
}

std::string CertificateFacts() { return SignatureText() + ClientCertificateText(); }

std::string FolderFacts() {
  std::string text;
  namespace state = kiosk::state;
  for (const wchar_t* folder : {state::kMakerFolder, state::kProductFolder, state::kLogRoot, state::kLogDrop,
                                state::kKioskFolder, state::kBrandingFolder}) {
    text += Descriptor(folder);
  }
  const std::wstring file = ServiceFile();
  return file.empty() ? text : text + Descriptor(file.substr(0, file.rfind(L'\\'))) + Descriptor(file);
}

}  // namespace kioskctl
