#include "check.h"

#include "account/winlogon.h"
#include "commands.h"
#include "file_version.h"
#include "pipe/signature.h"
#include "power/power_policy_store.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/console.h"
#include "win32/folder_entries.h"
#include "win32/owners.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace kioskctl {
namespace {

namespace state = kiosk::state;
using kiosk::win32::FolderEntry;
using kiosk::win32::Print;
using kiosk::win32::ToNarrow;

constexpr ULONGLONG kMegabyte = 1'048'576;
constexpr ULONGLONG kLeastRoom = 500 * kMegabyte;  // below this log lines are no longer kept for sending

std::string Megabytes(ULONGLONG bytes) { return std::to_string(bytes / kMegabyte) + " MB"; }

struct StateKey {
  bool readable = false;
  bool enrolled = false;
};

StateKey ReadStateKey() {
  kiosk::win32::RegistryKey key;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, state::kStateKey, 0, KEY_QUERY_VALUE, key.Put());
  return {status != ERROR_ACCESS_DENIED, state::TokenIsStored()};
}

Finding CheckService() {
  const ServiceState service = QueryService();
  if (!service.known) {
    return service.error == ERROR_SERVICE_DOES_NOT_EXIST
               ? Bad("service", "not installed" + ErrorText(service.error),
                     "Run NorvaneKiosk.exe --install, or the package.")
               : Bad("service", "the service manager does not tell" + ErrorText(service.error),
                     "Run this as an administrator.");
  }
  if (service.state != SERVICE_RUNNING) {
    return Bad("service", StateText(service.state) + (service.exitCode != 0 ? ErrorText(service.exitCode) : ""),
               service.state == SERVICE_STOPPED
                   ? "Start it: sc.exe start NorvaneKiosk. Its log says why it stopped."
                   : "Wait a minute. If it stays so, make a support bundle, then restart the computer.");
  }
  const Answer answer = Ask(kiosk::text::Secret(R"({"cmd":"status"})"), kStatusWait);
  const std::string process = "process " + std::to_string(service.process);
  switch (answer.outcome) {
    case Outcome::kReply:
      return Good("service", "runs as " + process + " and answers");
    case Outcome::kImpostor:
      return Bad("service", "another program serves its pipe", "Find and end it, then restart the service.");
    case Outcome::kNotAllowed:
      return Good("service", "runs as " + process + "; this user may not ask it");
    default:
      return Bad("service", "runs as " + process + " and does not answer" + ErrorText(answer.error),
                 "Make a support bundle, then restart the service.");
  }
}

Finding CheckProgram() {
  const std::wstring path = ServiceFile();
  const kiosk::win32::FileHandle file =
      path.empty() ? kiosk::win32::FileHandle() : kiosk::pipe::HoldImage(path.c_str());
  if (!file) {
    return Bad("program", path.empty() ? "none" : ToNarrow(path) + " cannot be opened" + ErrorText(GetLastError()),
               "Install the program again.");
  }
  const auto publisher = kiosk::pipe::TrustedPublisherOfFile(path.c_str(), file.Get());
  const bool development = state::FlagIsOn(state::kDevAllowUnsigned);
  const std::string program = ToNarrow(path) + ", version " + FileVersion(path);
  return publisher || development
             ? Good("program", program + (publisher ? ", signed by " + ToNarrow(*publisher) : ", not signed"))
             : Bad("program", program + ", has no signature that Windows trusts",
                   "Install a signed release: an unsigned service admits no program.");
}

Finding CheckEnrolment(const StateKey& key) {
  if (state::FlagIsOn(state::kTeardownPending)) {
    return Bad("pairing", "kiosk mode is being removed, and the kiosk account is in use", "Restart the computer.");
  }
  if (!key.enrolled) {
    return Bad("pairing", "not paired with a portal", "Run " + CommandLine("pair") + ".");
  }
  const std::string error = ToNarrow(state::ReadStateString(state::kLastError));
  return error.empty() ? Good("pairing", "paired, without an error")
                       : Bad("pairing", "paired; the last error is \"" + error + "\"", Explain(error));
}

Finding CheckClient() {
  const std::wstring folder = state::ClientInstallFolder();
  const std::wstring program = folder + L"\\NorvaneTessalyClient.exe";
  return folder.empty() ? Bad("client", "not installed", "Install the client program.")
         : GetFileAttributesW(program.c_str()) == INVALID_FILE_ATTRIBUTES
             ? Bad("client", ToNarrow(program) + " is missing", "Install the client program again.")
             : Good("client", ToNarrow(program));
}

Finding CheckAccount() {
  BYTE* raw = nullptr;
  const NET_API_STATUS status = NetUserGetInfo(nullptr, L"NorvaneKiosk", 23, &raw);
  const kiosk::win32::NetBuffer record(raw);
  const std::wstring sid =
      status == NERR_Success
          ? kiosk::win32::SidText(reinterpret_cast<const USER_INFO_23*>(record.Get())->usri23_user_sid)
          : L"";
  if (sid.empty()) {
    return Bad("account", "there is no NorvaneKiosk" + ErrorText(status),
               "The service makes it at its next check-in; its log says what stands in the way.");
  }
  if (!kiosk::win32::EqualIgnoringCase(sid, state::ReadStateString(state::kAccountSid))) {
    return Bad("account", "NorvaneKiosk is not the service's own", "Delete or rename that user.");
  }
  return state::ProfileFolder(sid)
             ? Good("account", "NorvaneKiosk, with a profile")
             : Bad("account", "NorvaneKiosk has no profile",
                   "The service makes one at its next check-in; its log says what stands in the way.");
}

Finding CheckSignIn() {
  const auto text = [](const wchar_t* name) {
    return ToNarrow(state::ReadString(kiosk::account::kWinlogonKey, name).value_or(L""));
  };
  const std::string user = text(kiosk::account::kDefaultUserName);
  if (state::FlagIsOn(state::kMaintenance)) {
    return Good("sign-in", "maintenance: nobody signs in by themselves");
  }
  if (text(kiosk::account::kAutoAdminLogon) != "1") {
    return Bad("sign-in", "Windows signs nobody in by itself (AutoAdminLogon)",
               "Restart the service; if it stays so, a policy or another program switches it off.");
  }
  return user == "NorvaneKiosk" ? Good("sign-in", "Windows signs NorvaneKiosk in")
                                : Bad("sign-in", "Windows would sign \"" + user + "\" in (DefaultUserName)",
                                      "The service puts its own name back at its next check-in, unless somebody else's "
                                      "password is stored.");
}

Finding CheckTasks() {
  kiosk::power::PowerPolicy policy;
  if (!kiosk::power::LoadEffectivePowerPolicy(policy) || !policy.schedule.enabled) {
    return Good("tasks", "no schedule for sleep and wake");
  }
  return TasksAreThere()
             ? Good("tasks", "both tasks for sleep and wake are there")
             : Bad("tasks", "a task for sleep or wake is missing", "The service makes it at its next check-in.");
}

Finding CheckLogs() {
  const DWORD attributes = GetFileAttributesW(state::kLogRoot);
  if (!kiosk::win32::IsPlainFolder(attributes)) {
    return Bad("log", ToNarrow(state::kLogRoot) + " cannot be opened" + ErrorText(GetLastError()),
               "Run this as an administrator. If it still fails, restart the service.");
  }
  return Good("log", ToNarrow(state::kLogRoot));
}

Finding CheckSpool() {
  const std::vector<FolderEntry> segments = kiosk::win32::EntriesOf(state::kLogDrop, L"*.gelf");
  const ULONGLONG bytes = std::accumulate(segments.begin(), segments.end(), ULONGLONG{0},
                                          [](ULONGLONG sum, const FolderEntry& each) { return sum + each.size; });
  // The service sends what it finds within minutes.
  const auto old = std::count_if(segments.begin(), segments.end(), [](const FolderEntry& each) {
    return each.lastWrite + 3'600 * kiosk::win32::kFileTimeSecond < kiosk::win32::FileTimeNow();
  });
  return old == 0 ? Good("log shipping", Megabytes(bytes) + " wait to be sent")
                  : Bad("log shipping", Megabytes(bytes) + " wait to be sent, some for more than an hour",
                        "Look for \"central log\" in the service's log.");
}

Finding CheckDisk() {
  ULARGE_INTEGER room{};
  if (GetDiskFreeSpaceExW(L"C:\\", &room, nullptr, nullptr) == 0) {
    return Bad("disk", "Windows does not tell what is free" + ErrorText(GetLastError()), "Check the disk.");
  }
  const std::string told = Megabytes(room.QuadPart) + " free on C:";
  return room.QuadPart >= kLeastRoom ? Good("disk", told) : Bad("disk", told, "Make room.");
}

}  // namespace

std::vector<Finding> CheckAll() {
  const StateKey key = ReadStateKey();
  std::vector<Finding> findings{CheckService(), CheckProgram()};
  for (Finding& each : CheckPortal()) {
    findings.push_back(std::move(each));
  }
  if (key.readable) {
    findings.push_back(CheckEnrolment(key));
  } else {
    findings.push_back(Bad("rights", "this user may not read the service's state", "Run this as an administrator."));
  }
  findings.push_back(CheckClient());
  // Without a pairing there is nothing to be set up.
  if (key.enrolled) {
    findings.insert(findings.end(), {CheckAccount(), CheckSignIn(), CheckTasks()});
  }
  findings.insert(findings.end(), {CheckLogs(), CheckSpool(), CheckDisk()});
  return findings;
}

std::string FindingsText(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& each : findings) {
    std::string line = (each.good ? "ok     " : "WRONG  ") + each.what;
    line.resize(std::max<std::size_t>(line.size() + 1, 22), ' ');
    text += line + each.told + "\n" + (each.good ? "" : std::string(22, ' ') + "-> " + each.advice + "\n");
  }
  return text;
}

namespace {

kiosk::json::Value FindingsAsJson(const std::vector<Finding>& findings) {
  kiosk::json::Value list = kiosk::json::Value::Array();
  for (const Finding& each : findings) {
    kiosk::json::Value finding = kiosk::json::Value::Object();
    finding.Set("check", each.what);
    finding.Set("ok", each.good);
    finding.Set("told", each.told);
    finding.Set("advice", each.advice);
    list.Append(std::move(finding));
  }
  return list;
}

}  // namespace

std::wstring ServiceFile() {
  std::wstring path =
      state::ReadString(L"SYSTEM\\CurrentControlSet\\Services\\NorvaneKiosk", L"ImagePath").value_or(L"");
  std::erase(path, L'"');
  return path;
}

int Check(const Options& options, const Words& /*words*/) {
  const std::vector<Finding> findings = CheckAll();
  if (options.json) {
    PrintJson(FindingsAsJson(findings));
  } else {
    Print(FindingsText(findings));
  }
  const bool good = std::all_of(findings.begin(), findings.end(), [](const Finding& each) { return each.good; });
  return good ? kDone : kServiceError;
}

}  // namespace kioskctl
