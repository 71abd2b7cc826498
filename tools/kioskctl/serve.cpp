// "serve": answers the pipe in the service's place as a script says, so that whoever writes a shell needs no kiosk. It
// looks at no caller and changes nothing on the computer.
#include "commands.h"

#include "command/reply.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "pipe/framing.h"
#include "pipe/overlapped.h"
#include "pipe/server.h"
#include "service/install.h"
#include "service/service_status.h"
#include "text/text.h"
#include "win32/console.h"
#include "win32/security.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::pipe::IoEnd;
using kiosk::pipe::IoResult;
using kiosk::pipe::OverlappedIo;
using kiosk::win32::FileHandle;
using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr DWORD kLargestScript = 1024 * 1024;
constexpr DWORD kPipeBuffer = 8192;
constexpr DWORD kRequestWait = 15'000;  // for each piece of a request
constexpr DWORD kClientWait = 5'000;    // for the client to take the reply, and again to close its end
constexpr double kForEver = std::numeric_limits<double>::infinity();

// The first rule that fits a request and is not used up answers it.
struct Rule {
  std::string command;
  Value when = {};  // members that the request must have; null: any request of the command
  Value reply = {};
  double times = 0;  // how often it still answers
  DWORD delay = 0;   // milliseconds before it does
};
using Rules = std::vector<Rule>;

// False when the file cannot be read; the last error says why.
bool ReadScript(const std::wstring& path, std::string& text) {
  const FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  text.resize(kLargestScript);
  DWORD read = 0;
  const bool done = file && ReadFile(file.Get(), text.data(), kLargestScript, &read, nullptr) != 0;
  text.resize(read);
  return done;
}

// A whole number from `least` on; `missing` where there is none, nothing where it is no such number.
std::optional<double> Whole(const Value& value, double least, double missing) {
  const double number = value.IsNull() ? missing : value.number();
  const bool whole = value.IsNull() || (value.IsNumber() && number >= least && number == std::floor(number));
  return whole && (number <= INT_MAX || value.IsNull()) ? std::optional(number) : std::nullopt;
}

// What is wrong with a rule; null when nothing is.
const char* ReadRule(const Value& value, Rule& rule) {
  const auto times = Whole(Member(value, "times"), 1, kForEver);
  const auto delay = Whole(Member(value, "delay"), 0, 0);
  rule.command = Member(value, "cmd").text();
  rule.when = Member(value, "when");
  rule.reply = Member(value, "reply");
  rule.times = times.value_or(0);
  rule.delay = static_cast<DWORD>(delay.value_or(0));
  return rule.command.empty()                           ? "\"cmd\" is no text"
         : !rule.when.IsNull() && !rule.when.IsObject() ? "\"when\" is no object"
         : !rule.reply.IsObject()                       ? "\"reply\" is no object"
         : !times                                       ? "\"times\" is no whole number from 1"
         : !delay                                       ? "\"delay\" is no whole number of milliseconds"
                                                        : nullptr;
}

// False after saying what is wrong with the script.
bool ReadRules(const std::string& path, Rules& rules) {
  std::string text;
  if (!ReadScript(kiosk::win32::ToWide(path), text)) {
    PrintError(path + " cannot be read" + ErrorText(GetLastError()) + "\n");
    return false;
  }
  std::string problem;
  const std::optional<Value> script = kiosk::json::Parse(text, &problem);
  if (!script || !script->IsArray()) {
    PrintError(path + ": " + (script ? "no JSON array" : problem) + "\n");
    return false;
  }
  for (const Value& each : script->items()) {
    if (const char* wrong = ReadRule(each, rules.emplace_back()); wrong != nullptr) {
      PrintError(path + ": rule " + std::to_string(rules.size()) + ": " + wrong + "\n");
      return false;
    }
  }
  return true;
}

// "unlock=locked": the command answers that code, whatever the script says. False for a word of another form.
bool AddFailure(const std::string& word, Rules& rules) {
  const std::size_t at = word.find('=');
  if (at == 0 || at == std::string::npos) {
    return false;
  }
  rules.insert(
      rules.begin(),
      {.command = word.substr(0, at), .reply = kiosk::command::ErrorReply(word.substr(at + 1)), .times = kForEver});
  return true;
}

bool Fits(const Rule& rule, const Value& request) {
  const auto& names = rule.when.keys();
  return rule.times > 0 && rule.command == Member(request, "cmd").text() &&
         std::all_of(names.begin(), names.end(),
                     [&](const std::string& name) { return Member(rule.when, name) == Member(request, name); });
}

Value Answer(Rules& rules, std::string_view text) {
  const std::optional<Value> request = kiosk::json::Parse(text);
  if (!request || !request->IsObject()) {
    return kiosk::command::ErrorReply("bad_request");
  }
  const auto rule = std::find_if(rules.begin(), rules.end(), [&](const Rule& each) { return Fits(each, *request); });
  if (rule == rules.end()) {
    return kiosk::command::ErrorReply("unknown_command");
  }
  rule->times -= 1;
  static_cast<void>(kiosk::win32::WaitOrStop(nullptr, rule->delay));
  return rule->reply;
}

// What a client sent is not to command the console.
void Show(const char* mark, std::string line) {
  kiosk::text::MakeSingleLine(line.data(), line.size());
  Print(mark + line + "\n");
}

// One client after the other, on one instance: whoever comes meanwhile finds the pipe busy, as with a busy service.
class Server {
 public:
  Server(HANDLE pipe, Rules& rules) noexcept : pipe_(pipe), rules_(rules) {}

  void Run() {
    while (Connected()) {
      Converse();
      DisconnectNamedPipe(pipe_);
    }
  }

 private:
  bool Connected() {
    const BOOL begun = ConnectNamedPipe(pipe_, io_.Begin());
    const DWORD error = begun == 0 ? GetLastError() : ERROR_SUCCESS;
    // Somebody was faster than this call, and may have gone again.
    return error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA ||
           io_.Finish(pipe_, begun, INFINITE).end == IoEnd::kDone;
  }

  IoResult Read(std::span<char> room, DWORD milliseconds) {
    const BOOL begun = ReadFile(pipe_, room.data(), static_cast<DWORD>(room.size()), nullptr, io_.Begin());
    return io_.Finish(pipe_, begun, milliseconds);
  }

  void Converse() {
    kiosk::pipe::RequestBuffer request;
    for (IoResult read{IoEnd::kDone}; !request.Over() && read.end == IoEnd::kDone; request.Added(read.bytes)) {
      read = Read(request.Room(), kRequestWait);
    }
    if (request.Request().empty()) {
      return;
    }
    Show("> ", std::string(request.Request()));
    std::string reply = kiosk::json::Serialise(Answer(rules_, request.Request()));
    Show("< ", reply);
    reply += '\n';
    const BOOL begun = WriteFile(pipe_, reply.data(), static_cast<DWORD>(reply.size()), nullptr, io_.Begin());
    std::array<char, kiosk::pipe::kReadChunk> more{};
    if (io_.Finish(pipe_, begun, kClientWait).end == IoEnd::kDone && Read(more, kClientWait).end == IoEnd::kTimeout) {
      Print("! the client did not close its end for 5 s\n");
    }
  }

  HANDLE pipe_;
  Rules& rules_;
  OverlappedIo io_;
};

// Returns the exit code, when it is to stop or cannot begin.
int ServePipe(Rules& rules) {
  // SYSTEM, administrators and whoever is signed in, as with the service.
  const kiosk::win32::SecurityDescriptor descriptor(L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x12019b;;;IU)");
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  const FileHandle pipe(CreateNamedPipeW(
      kiosk::pipe::kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, kPipeBuffer, kPipeBuffer, 0, &attributes));
  if (!pipe) {
    PrintError("The pipe cannot be made" + ErrorText(GetLastError()) + ". Does the kiosk service run?\n");
    return kNoService;
  }
  Print("Serving the pipe; Ctrl-C ends it.\n");
  Server(pipe.Get(), rules).Run();
  return kDone;
}

// Of the process that the service manager started; set before its dispatcher begins.
Rules* serviceRules = nullptr;

DWORD WINAPI OnControl(DWORD control, DWORD /*type*/, void* /*data*/, void* /*context*/) noexcept {
  if (control == SERVICE_CONTROL_STOP) {
    kiosk::win32::RequestStop();
  }
  return NO_ERROR;
}

void WINAPI RunAsService(DWORD /*count*/, wchar_t** /*arguments*/) noexcept {
  if (kiosk::service::RegisterControls(kiosk::service::kServiceName, OnControl)) {
    kiosk::service::ReportRunning();
    ServePipe(*serviceRules);
    kiosk::service::ReportStopped();
  }
}

}  // namespace

int Serve(const Options& /*options*/, const Words& words) {
  Rules rules;
  if (!ReadRules(words[1], rules)) {
    return kUsage;
  }
  for (std::size_t i = 2; i < words.size(); ++i) {
    if (!AddFailure(words[i], rules)) {
      return WrongUsage("\"" + words[i] + "\" is not COMMAND=CODE");
    }
  }
  if (!kiosk::win32::CreateStopEvent()) {
    PrintError("Windows gives no event" + ErrorText(GetLastError()) + "\n");
    return kServiceError;
  }
  // Started by the service manager under the service's name: a shell that makes sure who serves the pipe takes it.
  serviceRules = &rules;
  std::wstring name = kiosk::service::kServiceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), RunAsService}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) != 0 ? static_cast<int>(kDone) : ServePipe(rules);
}

}  // namespace kioskctl
