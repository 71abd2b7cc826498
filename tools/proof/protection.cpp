// What keeps others out: who may read and write what the service has made, what was planted before it came, what a
// crash and a support bundle leave behind.
#include "pipe/server.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tests/contract/hand.h"
#include "tools/proof/hand.h"
#include "tools/proof/journal.h"
#include "tools/proof/life.h"
#include "tools/proof/product.h"
#include "win32/folder_entries.h"
#include "win32/owners.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <aclapi.h>
#include <sddl.h>

namespace proof {
namespace {

using contract::Asked;
using contract::Platform;
using kiosk::json::Member;
using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;
using kiosk::win32::LocalMemory;

constexpr wchar_t kTrap[] = L"C:\\ProgramData\\NorvaneProofTrap";
constexpr wchar_t kBait[] = L"C:\\ProgramData\\NorvaneProofTrap\\file";  // is there once the link is
constexpr wchar_t kBundles[] = L"C:\\ProgramData\\NorvaneProofBundle";
constexpr DWORD kBackAfterCrash = 40'000;  // ms: 10 s, and what Windows takes for the dump
constexpr SECURITY_INFORMATION kOwnerAndList = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

// Without the mark that Windows itself sets on a list that could have inherited.
std::wstring Text(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts) {
  wchar_t* text = nullptr;
  if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts, &text, nullptr) == 0) {
    return L"(none)";
  }
  const LocalMemory owned(text);
  std::wstring sddl = text;
  if (const std::size_t mark = sddl.find(L"D:PAI("); mark != std::wstring::npos) {
    sddl.erase(mark + 3, 2);
  }
  return sddl;
}

// Of a folder or a pipe.
std::wstring SecurityOf(const wchar_t* path, SECURITY_INFORMATION parts) {
  const FileHandle object(CreateFileW(path, READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                      nullptr));
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!object || GetSecurityInfo(object.Get(), SE_FILE_OBJECT, parts, nullptr, nullptr, nullptr, nullptr,
                                 &descriptor) != ERROR_SUCCESS) {
    return L"(none)";
  }
  const LocalMemory owned(descriptor);
  return Text(descriptor, parts);
}

// Anybody may make folders and links below C:\ProgramData before the service is there.
void Plant(Asked& asked) {
  if (IsThere(kiosk::state::kMakerFolder)) {
    Asked::CannotRun("C:\\ProgramData\\Norvane is there already");
  }
  Asked::Needs(NoteFolder(kTrap) && NoteFolder(kiosk::state::kMakerFolder) && CreateDirectoryW(kTrap, nullptr) != 0,
               "a folder of its own");
  contract::MakeJunction(kiosk::state::kMakerFolder, kTrap);
  Asked::Needs(ReplaceFileText(kBait, "content"), "a file in it");
  asked.True("the trap is set", !kiosk::win32::IsPlainFolder(GetFileAttributesW(kiosk::state::kMakerFolder)));
}

void PlantedLink(Asked& asked) {
  if (!IsThere(kBait)) {
    Asked::CannotRun("nothing could be planted");
  }
  asked.True("a plain folder has taken its place",
             kiosk::win32::IsPlainFolder(GetFileAttributesW(kiosk::state::kMakerFolder)));
  asked.Same("what is in the trap", kiosk::win32::EntriesOf(kTrap).size(), 1);
}

void StateKey(Asked& asked) {
  kiosk::win32::RegistryKey key;
  std::vector<BYTE> room(4096);
  DWORD size = static_cast<DWORD>(room.size());
  Asked::Needs(
      RegOpenKeyExW(HKEY_LOCAL_MACHINE, kiosk::state::kStateKey, 0, READ_CONTROL, key.Put()) == ERROR_SUCCESS &&
          RegGetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION, room.data(), &size) == ERROR_SUCCESS,
      "the state key");
  asked.Same("its list", Text(room.data(), DACL_SECURITY_INFORMATION), L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)");
}

void Folders(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine's files have no owner and no list of their own");
  for (const wchar_t* const folder :
       {kiosk::state::kMakerFolder, kiosk::state::kProductFolder, kiosk::state::kLogRoot}) {
    asked.Same(kiosk::win32::ToNarrow(folder).c_str(), SecurityOf(folder, kOwnerAndList),
               L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
  }
  asked.Same("the branding", SecurityOf(kiosk::state::kBrandingFolder, kOwnerAndList),
             L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)");
}

// Of the generic rights that the service gives Windows makes those to files; Wine leaves them as they are.
void PipeList(Asked& asked) {
  const bool mapped = contract::ThisPlatform() == Platform::kWindows;
  asked.Same("its list", SecurityOf(kiosk::pipe::kPipeName, DACL_SECURITY_INFORMATION),
             mapped ? L"D:P(A;;FA;;;SY)(A;;0x12019b;;;IU)" : L"D:P(A;;GA;;;SY)(A;;0x12019b;;;IU)");
}

void NeedSecondUser(bool done) {
  if (!done) {
    Asked::CannotRun("there is no second user here whom Windows would judge");
  }
}

// What a plain user is refused, and what he is not.
void SecondUser(Asked& asked) {
  const auto error = [](const auto& opened) { return opened ? ERROR_SUCCESS : GetLastError(); };
  const auto file = [&](const std::wstring& path, DWORD access) {
    return error(FileHandle(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr)));
  };
  const std::wstring record = std::wstring(kiosk::state::kBrandingFolder) + L"\\branding.json";
  struct Answer {
    const char* what;
    DWORD answer, promise;
  };
  std::vector<Answer> answers;
  NeedSecondUser(hand::AsSecondUser(true, [&] {
    kiosk::win32::RegistryKey key;
    const LSTATUS state = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kiosk::state::kStateKey, 0, KEY_READ, key.Put());
    const FileHandle pipe(CreateNamedPipeW(kiosk::pipe::kPipeName, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE,
                                           PIPE_UNLIMITED_INSTANCES, 0, 0, 0, nullptr));
    answers = {{"the service's pipe", error(pipe), ERROR_ACCESS_DENIED},
               {"the state key", static_cast<DWORD>(state), ERROR_ACCESS_DENIED},
               {"the maker's folder", file(kiosk::state::kMakerFolder, FILE_LIST_DIRECTORY), ERROR_ACCESS_DENIED},
               {"the logs", file(kiosk::state::kLogRoot, FILE_LIST_DIRECTORY), ERROR_ACCESS_DENIED},
               {"reading the branding", file(record, GENERIC_READ), ERROR_SUCCESS},
               {"writing it", file(record, GENERIC_WRITE), ERROR_ACCESS_DENIED}};
    const kiosk::win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    answers.push_back({"making a service", error(manager), ERROR_ACCESS_DENIED});
  }));
  for (const Answer& each : answers) {
    asked.Same(each.what, each.answer, each.promise);
  }
}

void FromNetwork(Asked& asked) {
  kioskctl::Answer answer;
  NeedSecondUser(hand::AsSecondUser(false, [&] { answer = AskService(Request("status")); }));
  asked.True("he cannot open the pipe", answer.outcome == kioskctl::Outcome::kNotAllowed);
}

void System(Asked& asked) {
  const auto ask = [](const char* command) {
    const std::optional<kioskctl::Answer> answer = hand::AskAsSystem(Request(command));
    if (!answer) {
      Asked::CannotRun("nobody here is LocalSystem");
    }
    return answer->reply;
  };
  asked.True("the status is answered", Member(ask("status"), "ok").boolean());
  const std::size_t logged = ProductLog().size();
  asked.Same("a pairing", Error(ask("pair.begin")), L"not_permitted");
  asked.True("the log says so", ProductLog().find("pair.begin refused: ", logged) != std::string::npos);
}

// DEP is not among them: a 64-bit program cannot be without it.
void Mitigations(Asked& asked) {
  if (contract::ThisPlatform() != Platform::kWindows) {
    Asked::CannotRun("Wine has no mitigations of a process");
  }
  const KernelHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, ProductProcess()));
  Asked::Needs(static_cast<bool>(process), "the service's process");
  const auto flags = [&](PROCESS_MITIGATION_POLICY policy) {
    DWORD value = 0;
    return GetProcessMitigationPolicy(process.Get(), policy, &value, sizeof(value)) != 0 ? value : 0;
  };
  constexpr DWORD kBottomUp = 1;
  constexpr DWORD kHighEntropy = 4;
  constexpr DWORD kNoRemoteImages = 1;
  constexpr DWORD kSystem32First = 4;
  asked.Same("addresses at random", flags(ProcessASLRPolicy) & (kBottomUp | kHighEntropy), kBottomUp | kHighEntropy);
  asked.Same("images", flags(ProcessImageLoadPolicy) & (kNoRemoteImages | kSystem32First),
             kNoRemoteImages | kSystem32First);
  asked.Same("extension points are off", flags(ProcessExtensionPointDisablePolicy), 1);
  constexpr auto kRedirectionTrust = static_cast<PROCESS_MITIGATION_POLICY>(16);  // newer than some Windows
  asked.Tells("trusted redirections alone", flags(kRedirectionTrust));
}

// A thread at address 0 in the service: a fault that nobody handles.
void Crash(Asked& asked) {
  if (contract::ThisPlatform() != Platform::kWindows) {
    Asked::CannotRun("Wine's service manager does not see that a service has crashed");
  }
  const DWORD before = ProductProcess();
  const KernelHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, before));
  Asked::Needs(static_cast<bool>(process), "the service's process");
  const KernelHandle thread(CreateRemoteThread(process.Get(), nullptr, 0, nullptr, nullptr, 0, nullptr));
  asked.True("it ends", WaitForSingleObject(process.Get(), kBackAfterCrash) == WAIT_OBJECT_0);
  asked.True("it is back", Within(kBackAfterCrash, [&] {
               const DWORD now = ProductProcess();
               return now != 0 && now != before && AskProduct("status").IsObject();
             }));
  asked.True("its log says so", ProductLog().find("fault 0xc0000005") != std::string::npos);
  bool dumped = false;
  for (const kiosk::win32::FolderEntry& day : kiosk::win32::EntriesOf(kiosk::state::kLogRoot)) {
    dumped = dumped || !kiosk::win32::EntriesOf(day.path, L"NorvaneKiosk-*.dmp").empty();
  }
  asked.True("there is a dump",
             dumped || !kiosk::win32::EntriesOf(kiosk::state::kLogRoot, L"NorvaneKiosk-*.dmp").empty());
}

// Everything in the folder, its folders included.
std::string ContentOf(const std::wstring& folder) {
  std::string text;
  for (const kiosk::win32::FolderEntry& each : kiosk::win32::EntriesOf(folder)) {
    text += kiosk::win32::IsPlainFolder(each.attributes) ? ContentOf(each.path) : ReadFileText(each.path).value_or("");
  }
  return text;
}

void SupportBundle(Asked& asked) {
  const std::wstring program = BesideKit(L"kioskctl.exe");
  if (!IsThere(program)) {
    Asked::CannotRun("there is no kioskctl.exe beside the kit");
  }
  Asked::Needs(NoteFolder(kBundles) && CreateDirectoryW(kBundles, nullptr) != 0, "a folder of its own");
  const Ran ran = RunProgram(L"\"" + program + L"\" support-bundle " + kBundles, kSoon);
  asked.Same("it ends with", ran.exitCode, 0);
  const std::string content = ContentOf(kBundles);
  asked.True("it has the status", content.find("\"enrolled\":true") != std::string::npos);
  asked.True("it has the log", content.find("listening on") != std::string::npos);
  const std::string sid = kiosk::win32::ToNarrow(kiosk::state::ReadStateString(kiosk::state::kAccountSid));
  asked.True("it has no SID of the kiosk", sid.empty() || content.find(sid) == std::string::npos);
  asked.True("it has no exit password", content.find(kExitPassword) == std::string::npos);
}

constexpr Step kPlanted[] = {
    {{"life/plant", "a link that anybody may make before the service comes", Plant}},
};
constexpr Step kRows[] = {
    {{"life/planted link", "it is replaced, and nothing is written where it led", PlantedLink}},
    {{"life/state key", "SYSTEM and Administrators alone have the state", StateKey}},
    {{"life/folders", "and the logs; everybody may read the branding", Folders}},
    {{"life/second user", "a plain user is kept out, and takes no pipe in the service's place", SecondUser}},
    {{"life/pipe", "SYSTEM and who is signed in interactively alone open the pipe", PipeList}},
    {{"life/network logon", "a user who is not signed in interactively does not", FromNetwork}},
    {{"life/system", "LocalSystem is told the status, and pairs nothing", System}},
    {{"life/mitigations", "Windows loads nothing into the service but what it trusts", Mitigations}},
    {{"life/bundle", "a bundle tells of the terminal, and no secret", SupportBundle}},
    {{"life/crash", "a crash leaves a line and a dump, and the service comes back", Crash}},
};

}  // namespace

const std::span<const Step> kPlantedSteps{kPlanted};
const std::span<const Step> kProtectionSteps{kRows};

}  // namespace proof
