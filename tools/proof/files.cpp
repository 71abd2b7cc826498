#include "tools/proof/files.h"

#include "json/parse.h"
#include "text/text.h"
#include "win32/handle.h"
#include "win32/program_path.h"

namespace proof {
namespace {

using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;

bool Write(HANDLE file, const std::string& text) {
  DWORD written = 0;
  return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0 &&
         written == text.size() && FlushFileBuffers(file) != 0;
}

// A file for what a program says, which goes with its handles. Not a pipe: a program's children would keep that open.
FileHandle OutputFile() {
  wchar_t folder[MAX_PATH];
  wchar_t path[MAX_PATH];
  if (GetTempPathW(MAX_PATH, folder) == 0 || GetTempFileNameW(folder, L"npk", 0, path) == 0) {
    return FileHandle();
  }
  SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
  return FileHandle(CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
}

std::string Content(HANDLE file) {
  std::string text;
  char chunk[4096];
  DWORD read = 0;
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) != 0 && read != 0) {
    text.append(chunk, read);
  }
  return text;
}

}  // namespace

std::optional<std::string> ReadFileText(const std::wstring& path) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, 0, nullptr));
  return file ? std::optional(Content(file.Get())) : std::nullopt;
}

kiosk::json::Value ReadJson(const std::wstring& path) {
  return kiosk::json::Parse(ReadFileText(path).value_or("")).value_or(kiosk::json::Value());
}

bool ReplaceFileText(const std::wstring& path, const std::string& text) {
  const std::wstring coming = path + L".new";
  {
    const FileHandle file(CreateFileW(coming.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    if (!file || !Write(file.Get(), text)) {
      return false;
    }
  }
  // Whoever reads the file just now is in the way for a moment.
  constexpr int kTries = 20;
  constexpr DWORD kPause = 50;  // ms
  for (int tries = 1;; ++tries) {
    if (MoveFileExW(coming.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0) {
      return true;
    }
    if (tries == kTries || (GetLastError() != ERROR_ACCESS_DENIED && GetLastError() != ERROR_SHARING_VIOLATION)) {
      return false;
    }
    Sleep(kPause);
  }
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(text.substr(begin, end - begin));
  }
  return lines;
}

std::vector<std::uint8_t> Bytes(const std::string& hex) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(16 * kiosk::text::HexDigit(hex[i]) + kiosk::text::HexDigit(hex[i + 1])));
  }
  return bytes;
}

std::wstring BesideKit(const std::wstring& name) {
  const std::wstring path = kiosk::win32::ProgramPath();
  return path.substr(0, path.find_last_of(L'\\') + 1) + name;
}

Ran RunProgram(std::wstring command, DWORD limit, const std::function<void()>& meanwhile) {
  const FileHandle output = OutputFile();
  KernelHandle input;
  KernelHandle inputEnd;  // ours, which the program must not inherit: its input would never end
  SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
  if (!output || CreatePipe(input.Put(), inputEnd.Put(), &inherited, 0) == 0 ||
      SetHandleInformation(inputEnd.Get(), HANDLE_FLAG_INHERIT, 0) == 0) {
    return {.error = GetLastError(), .output = {}};
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = input.Get();
  startup.hStdOutput = output.Get();
  startup.hStdError = output.Get();
  PROCESS_INFORMATION process{};
  if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                     &process) == 0) {
    return {.error = GetLastError(), .output = {}};
  }
  const KernelHandle thread(process.hThread);
  const KernelHandle child(process.hProcess);
  if (meanwhile && Within(limit, [&] {
        return !Content(output.Get()).empty() || WaitForSingleObject(child.Get(), 0) == WAIT_OBJECT_0;
      })) {
    meanwhile();
  }
  inputEnd.Reset();
  Ran ran{.output = {}};
  if (WaitForSingleObject(child.Get(), limit) != WAIT_OBJECT_0) {
    TerminateProcess(child.Get(), 1);
    WaitForSingleObject(child.Get(), INFINITE);
    ran.error = WAIT_TIMEOUT;
  }
  GetExitCodeProcess(child.Get(), &ran.exitCode);
  ran.output = Content(output.Get());
  return ran;
}

}  // namespace proof
