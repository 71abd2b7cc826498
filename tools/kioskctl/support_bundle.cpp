#include "check.h"
#include "commands.h"
#include "log_files.h"
#include "redact.h"
#include "support_facts.h"
#include "win32/clock.h"
#include "win32/console.h"
#include "win32/grow.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/thread.h"
#include "win32/wide_text.h"
#include "zip_archive.h"

#include <cstdio>
#include <iterator>
#include <memory>
#include <utility>

namespace kioskctl {
namespace {

using kiosk::win32::FileHandle;
using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr std::size_t kLogBudget = std::size_t{20} * 1024 * 1024;
constexpr DWORD kPatience = 60'000;  // ms, for all sections together: no part of Windows that hangs keeps the rest back

std::string CheckFacts() { return FindingsText(CheckAll()); }

struct Section {
  const char* file;
  std::string (*text)();
};

constexpr Section kSections[] = {
    {"check.txt", CheckFacts},
    {"computer.txt", ComputerFacts},
    {"service.txt", ServiceFacts},
    {"status.txt", StatusFacts},
    {"events.txt", EventFacts},
    {"sessions.txt", SessionFacts},
    {"state.txt", StateFacts},
    {"settings.txt", SettingsFacts},
    {"network.txt", NetworkFacts},
    {"tasks.txt", TaskFacts},
    {"certificates.txt", CertificateFacts},
    {"folders.txt", FolderFacts},
    {"files.txt", FileFacts},
};

// A question to Windows on its way. Its thread may hang there for ever: then it is left behind, with its share of the
// answer.
template <typename Result>
class Asked {
 public:
  explicit Asked(Result (*ask)())
      : thread_(kiosk::win32::StartThread([out = result_, ask]() noexcept { *out = ask(); })) {}

  // Null when there is none by then.
  const Result* Wait(const kiosk::win32::Deadline& deadline) const {
    const bool done = thread_ && WaitForSingleObject(thread_.Get(), deadline.Left()) == WAIT_OBJECT_0;
    return done ? result_.get() : nullptr;
  }

 private:
  std::shared_ptr<Result> result_ = std::make_shared<Result>();
  kiosk::win32::KernelHandle thread_;
};

// Full control for SYSTEM, Administrators and the owner ("OWNER RIGHTS", whoever makes the bundle), for nobody else.
// The logs are for administrators alone, and a copy must not be for others because of where it is put.
constexpr wchar_t kPrivate[] = L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;S-1-3-4)";

std::wstring FullPath(const std::wstring& folder) {
  std::vector<wchar_t> buffer;
  kiosk::win32::CallGrowing(buffer, [&folder](wchar_t* out, DWORD* size) -> DWORD {
    *size = GetFullPathNameW(folder.c_str(), *size, out, nullptr);
    return *size != 0 ? DWORD{ERROR_SUCCESS} : GetLastError();
  });
  return buffer.empty() ? folder : std::wstring(buffer.begin(), buffer.end());
}

// A file that was not there, with `path` its full path; several in one second get a number each. Invalid, with the last
// error, when none can be made.
FileHandle MakeFile(const std::wstring& folder, const SYSTEMTIME& now, std::wstring& path) {
  const kiosk::win32::SecurityDescriptor descriptor(kPrivate);
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  const std::wstring full = FullPath(folder);
  FileHandle file;
  for (int number = 1; descriptor && !file && number < 100; ++number) {
    wchar_t name[64];
    static_cast<void>(std::swprintf(name, std::size(name), L"NorvaneKiosk-support-%04d%02d%02d-%02d%02d%02d", now.wYear,
                                    now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond));
    path = full + (full.ends_with(L'\\') ? L"" : L"\\") + name +
           (number > 1 ? L"-" + std::to_wstring(number) : std::wstring()) + L".zip";
    file.Reset(CreateFileW(path.c_str(), GENERIC_WRITE | DELETE, 0, &security, CREATE_NEW, 0, nullptr));
    if (!file && GetLastError() != ERROR_FILE_EXISTS) {
      break;
    }
  }
  return file;
}

// What of a text may be handed on, when the names of this computer's users are known.
std::string Cleaned(const std::string& text, const std::vector<std::wstring>* names) {
  return names != nullptr ? Redacted(text, *names)
                          : "left out: Windows does not tell which users there are, whose names may stand here\n";
}

void AddLogs(ZipArchive& archive, const std::vector<std::wstring>* names) {
  for (const std::wstring& path : NewestLogs(kLogBudget)) {
    // The day's folder becomes a part of the copy's name: files of different days have the same names.
    const std::size_t nameAt = path.rfind(L'\\');
    const std::size_t parentAt = path.rfind(L'\\', nameAt - 1);
    const std::wstring name = path.substr(parentAt + 1, nameAt - parentAt - 1) + L"-" + path.substr(nameAt + 1);
    std::string text;
    std::uint64_t offset = 0;
    if (!ReadLog(path, offset, kLogBudget, text)) {
      text = "cannot be read" + ErrorText(GetLastError()) + "\n";
    }
    archive.Add("logs/" + kiosk::win32::ToNarrow(name), Cleaned(text, names));
  }
}

// The whole zip file. Prints the name of each member that is done, for a person who waits.
std::string Collect(const Options& options, const SYSTEMTIME& now) {
  const kiosk::win32::Deadline deadline(kPatience);
  const Asked<std::vector<std::wstring>> askedNames(NamesOfUsers);
  std::vector<Asked<std::string>> asked;
  for (const Section& section : kSections) {
    asked.emplace_back(section.text);
  }
  FILETIME time{};
  WORD date = 0;
  WORD timeOfDay = 0;
  if (SystemTimeToFileTime(&now, &time) != 0) {
    FileTimeToDosDateTime(&time, &date, &timeOfDay);
  }
  const auto tell = [&options](const char* what) { Print(options.json ? "" : std::string("  ") + what + "\n"); };
  ZipArchive archive(date, timeOfDay);
  const std::vector<std::wstring>* const names = askedNames.Wait(deadline);
  for (std::size_t i = 0; i < asked.size(); ++i) {
    const std::string* const text = asked[i].Wait(deadline);
    archive.Add(kSections[i].file, text != nullptr ? Cleaned(*text, names) : "no answer within a minute\n");
    tell(kSections[i].file);
  }
  AddLogs(archive, names);
  tell("logs");
  return archive.Finish();
}

// Returns a Windows error, after which the file goes when it is closed.
DWORD WriteWhole(HANDLE file, const std::string& bytes) {
  DWORD written = 0;
  const bool taken = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) != 0;
  if (taken && written == bytes.size()) {
    return ERROR_SUCCESS;
  }
  const DWORD error = taken ? DWORD{ERROR_DISK_FULL} : GetLastError();
  FILE_DISPOSITION_INFO gone{TRUE};
  SetFileInformationByHandle(file, FileDispositionInfo, &gone, sizeof(gone));
  return error;
}

}  // namespace

int SupportBundle(const Options& options, const Words& words) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::wstring path;
  const std::wstring folder = kiosk::win32::ToWide(words.size() > 1 && !words[1].empty() ? words[1] : ".");
  const FileHandle file = MakeFile(folder, now, path);
  DWORD error = file ? DWORD{ERROR_SUCCESS} : GetLastError();
  if (file) {
    Print(options.json ? "" : "Collecting, which takes a minute at most:\n");
    error = WriteWhole(file.Get(), Collect(options, now));
  }
  const std::string shown = kiosk::win32::ToNarrow(path);
  if (error != ERROR_SUCCESS) {
    PrintError("Cannot write " + shown + ErrorText(error) + ".\n");
    return kServiceError;
  }
  if (options.json) {
    PrintJson(kiosk::json::Value::Object().Set("bundle", shown));
  } else {
    Print("Support bundle: " + shown +
          "\nIt holds no token, no password and no user's name, but names and addresses of this computer, its network\n"
          "and the portal: look through it before you hand it on. Only administrators and you can open it.\n");
  }
  return kDone;
}

}  // namespace kioskctl
