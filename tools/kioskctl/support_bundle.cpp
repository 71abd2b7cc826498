#include "commands.h"
#include "json/serialise.h"
#include "support_facts.h"
#include "win32/console.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace kioskctl {
namespace {

using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr DWORD kStatusWait = 5'000;
constexpr std::size_t kLogBudget = std::size_t{20} * 1024 * 1024;

std::string StatusAnswer() {
  const Answer answer = Ask(kiosk::text::Secret(R"({"cmd":"status"})"), kStatusWait);
  if (answer.outcome == Outcome::kReply) {
    return kiosk::json::Serialise(answer.reply) + "\n";
  }
  return "no answer (error " + std::to_string(answer.error) + ")\n";
}

struct Section {
  const wchar_t* file;
  std::string (*text)();
};

constexpr Section kSections[] = {
    {L"computer.txt", ComputerFacts}, {L"service.txt", ServiceFacts},          {L"status.txt", StatusAnswer},
    {L"state.txt", StateFacts},       {L"settings.txt", SettingsFacts},        {L"tasks.txt", TaskFacts},
    {L"proxy.txt", ProxyFacts},       {L"certificates.txt", CertificateFacts}, {L"folders.txt", FolderFacts},
};

// Protected; full control for SYSTEM, Administrators and the owner ("OWNER RIGHTS", whoever makes the bundle),
// inherited by all content. The logs are for administrators alone, and a copy must not be for others because of where
// it is put.
constexpr wchar_t kPrivate[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;S-1-3-4)";

bool MakeFolder(const std::wstring& path) {
  const kiosk::win32::SecurityDescriptor descriptor(kPrivate);
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  return descriptor && CreateDirectoryW(path.c_str(), &security) != 0;
}

bool WriteText(const std::wstring& path, const std::string& text) {
  const kiosk::win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  DWORD written = 0;
  return file && WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0 &&
         written == text.size();
}

std::wstring NewFolderName() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t name[64];
  static_cast<void>(std::swprintf(name, std::size(name), L"NorvaneKiosk-support-%04d%02d%02d-%02d%02d%02d", now.wYear,
                                  now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond));
  return name;
}

// The end of the file, at most `limit` bytes from the beginning of a line on. The service may write to the file, move
// or delete it meanwhile; a link is not followed.
bool ReadEnd(const std::wstring& path, std::size_t limit, std::string& text) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const kiosk::win32::FileHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, kAll, nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  LARGE_INTEGER size{};
  if (!file || GetFileSizeEx(file.Get(), &size) == 0) {
    return false;
  }
  const LONGLONG wanted = std::min(size.QuadPart, static_cast<LONGLONG>(limit));
  const LARGE_INTEGER from{.QuadPart = size.QuadPart - wanted};
  text.resize(static_cast<std::size_t>(wanted));
  DWORD read = 0;
  if (SetFilePointerEx(file.Get(), from, nullptr, FILE_BEGIN) == 0 ||
      ReadFile(file.Get(), text.data(), static_cast<DWORD>(wanted), &read, nullptr) == 0) {
    return false;
  }
  text.resize(read);
  if (from.QuadPart != 0) {
    text.erase(0, text.find('\n') + 1);
  }
  return true;
}

// The day's folder becomes a part of the copy's name: files of different days have the same names.
void CopyLogs(const std::wstring& folder) {
  int failed = 0;
  for (const std::wstring& path : NewestLogs(kLogBudget)) {
    const std::size_t nameAt = path.rfind(L'\\');
    const std::size_t parentAt = path.rfind(L'\\', nameAt - 1);
    const std::wstring name = path.substr(parentAt + 1, nameAt - parentAt - 1) + L"-" + path.substr(nameAt + 1);
    std::string text;
    const bool copied = ReadEnd(path, kLogBudget, text) && WriteText(folder + L"\\" + name, WithoutSids(text));
    failed += copied ? 0 : 1;
  }
  if (failed != 0) {
    PrintError(std::to_string(failed) + " log file(s) could not be copied.\n");
  }
}

int CannotWrite(const std::wstring& path) {
  const DWORD error = GetLastError();
  PrintError("Cannot write " + kiosk::win32::ToNarrow(path) + " (error " + std::to_string(error) + ").\n");
  return kServiceError;
}

}  // namespace

int SupportBundle(const Options& /*options*/, const Words& words) {
  std::wstring folder = kiosk::win32::ToWide(words.size() > 1 && !words[1].empty() ? words[1] : ".");
  folder += (folder.back() == L'\\' ? L"" : L"\\") + NewFolderName();
  const std::wstring logs = folder + L"\\logs";
  if (!MakeFolder(folder) || !MakeFolder(logs)) {
    return CannotWrite(folder);
  }
  for (const Section& section : kSections) {
    const std::wstring path = folder + L"\\" + section.file;
    if (!WriteText(path, WithoutSids(section.text()))) {
      return CannotWrite(path);
    }
  }
  CopyLogs(logs);
  Print("Support bundle: " + kiosk::win32::ToNarrow(folder) +
        "\nIt holds neither the terminal's token nor a password. It does name this computer, its users and addresses:\n"
        "look through it before you hand it on. Only administrators and you can open it.\n");
  return kDone;
}

}  // namespace kioskctl
