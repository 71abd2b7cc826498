// A complete small client of the kiosk service's pipe (docs/pipe.md), to copy from: what a kiosk shell does, with lines
// of text in place of windows. Standard library and Windows API alone; README.md beside this file says how to run it. A
// shell with windows calls Ask() on a thread of its own: a reply may take minutes.
#include "flat_json.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

struct CloseIt {
  void operator()(HANDLE handle) const {
    if (handle != INVALID_HANDLE_VALUE) {
      CloseHandle(handle);
    }
  }
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseIt>;
using ServiceHandle = std::unique_ptr<SC_HANDLE__, CloseIt>;

void Wipe(std::string& secret) { SecureZeroMemory(secret.data(), secret.size()); }

// -- the pipe ---------------------------------------------------------------------------------------------------------

// Milliseconds that the reply to a command may take; the longest times of docs/pipe.md, 15 s for the check of the
// caller included.
DWORD Patience(std::string_view command) {
  return command == "net.set"                               ? 750'000
         : command == "pair.check"                          ? 600'000
         : command == "pair.begin"                          ? 300'000
         : command == "unlock" || command == "maintenance"  ? 240'000
         : command == "time.sync" || command == "power.set" ? 150'000
                                                            : 30'000;
}

DWORD Left(ULONGLONG deadline) {
  const ULONGLONG now = GetTickCount64();
  return now < deadline ? static_cast<DWORD>(deadline - now) : 0;
}

// Whoever opens the name first serves it while the service does not run, so ask the service manager who the service is.
// One thread at a time: Wine now and then takes the manager's handles of two for each other's (ERROR_INVALID_HANDLE).
bool ServedByService(HANDLE pipe) {
  static std::mutex turn;
  const std::lock_guard guard(turn);
  const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  const ServiceHandle service(manager ? OpenServiceW(manager.get(), L"NorvaneKiosk", SERVICE_QUERY_STATUS) : nullptr);
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  ULONG server = 0;
  return service &&
         QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                              &needed) != 0 &&
         GetNamedPipeServerProcessId(pipe, &server) != 0 && server == status.dwProcessId;
}

// One transfer, which `start` begins; the number of bytes, 0 when it failed or did not end in time.
template <typename Start>
DWORD Transfer(HANDLE pipe, ULONGLONG deadline, Start start) {
  const Handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED io{};
  io.hEvent = event.get();
  if (!event || (start(&io) == 0 && GetLastError() != ERROR_IO_PENDING)) {
    return 0;
  }
  if (WaitForSingleObject(event.get(), Left(deadline)) != WAIT_OBJECT_0) {
    CancelIoEx(pipe, &io);
  }
  DWORD count = 0;  // waited for after a cancel too: until then buffer and `io` belong to Windows
  return GetOverlappedResult(pipe, &io, &count, TRUE) != 0 ? count : 0;
}

// Sends one request and closes the connection once the reply is there, which the service waits for. Empty: no service,
// somebody else's pipe, or no reply in time. `members` as Text() makes them.
Json Ask(const char* command, const std::string& members = {}) {
  const ULONGLONG deadline = GetTickCount64() + Patience(command);
  constexpr wchar_t kName[] = LR"(\\.\pipe\NorvaneKiosk)";
  Handle pipe;
  do {
    pipe.reset(CreateFileW(kName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  } while (pipe.get() == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PIPE_BUSY && Left(deadline) > 0 &&
           (WaitNamedPipeW(kName, 1000) != 0 || GetLastError() == ERROR_SEM_TIMEOUT));
  if (pipe.get() == INVALID_HANDLE_VALUE || !ServedByService(pipe.get())) {
    return {};
  }
  std::string line;
  line.reserve(members.size() + 64);
  line.append("{\"cmd\":\"").append(command).append("\"").append(members).append("}\n");
  const DWORD sent = Transfer(pipe.get(), deadline, [&](OVERLAPPED* io) {
    return WriteFile(pipe.get(), line.data(), static_cast<DWORD>(line.size()), nullptr, io);
  });
  Wipe(line);
  std::string reply;
  char chunk[4096];
  DWORD read = sent;
  while (read != 0 && reply.find('\n') == std::string::npos) {
    read = Transfer(pipe.get(), deadline,
                    [&](OVERLAPPED* io) { return ReadFile(pipe.get(), chunk, sizeof(chunk), nullptr, io); });
    reply.append(chunk, read);
  }
  std::string_view rest = reply;
  Json body;
  return read != 0 && Read(rest, "", body) ? body : Json();
}

bool Is(const Json& reply, const char* member) { return Get(reply, member) == "true"; }

// -- the screen -------------------------------------------------------------------------------------------------------

void Say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  static_cast<void>(std::fflush(stdout));
}

// A line that the person enters; nothing at the end of the input.
std::optional<std::string> Enter(const char* prompt, bool hidden = false) {
  Say(prompt);
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  DWORD mode = 0;
  const bool hide = hidden && GetConsoleMode(input, &mode) != 0;
  if (hide) {
    SetConsoleMode(input, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  }
  std::array<char, 512> buffer{};
  const bool any = std::fgets(buffer.data(), static_cast<int>(buffer.size()), stdin) != nullptr;
  if (hide) {
    SetConsoleMode(input, mode);
  }
  std::string line(buffer.data());
  SecureZeroMemory(buffer.data(), buffer.size());
  line.resize(std::min(line.find_first_of("\r\n"), line.size()));
  return any ? std::optional(std::move(line)) : std::nullopt;
}

Json messages;  // docs/messages.json, from main

// A member of the message for a code that answers a command: "sentence", "again".
std::string Message(const std::string& code, const std::string& command, const char* member) {
  for (int i = 0; messages.count(std::to_string(i)) != 0; ++i) {
    const std::string entry = std::to_string(i) + ".";
    bool fits = messages.count(entry + "commands") == 0;
    for (int j = 0; !fits && messages.count(entry + "commands." + std::to_string(j)) != 0; ++j) {
      fits = Get(messages, entry + "commands." + std::to_string(j)) == command;
    }
    if (fits && Get(messages, entry + "code") == code) {
      return Get(messages, entry + member);
    }
  }
  return {};
}

// Says what is wrong with a reply, if anything is.
void Explain(const Json& reply, const std::string& command) {
  const std::string code = Get(reply, "error");
  if (reply.empty()) {
    Say("The terminal's service does not answer. Please tell your administrator.");
  } else if (!code.empty() && code != "null") {
    const std::string sentence = Message(code, command, "sentence");
    Say((sentence.empty() ? "That did not work. Please tell your administrator." : sentence) + " [" + code + "]");
  }
}

// -- pairing ----------------------------------------------------------------------------------------------------------

// Shows one code until it was entered in the portal or is of no use; true: go on with a new one.
bool ShowCode(const Json& begun) {
  Say("Enter this code in the portal: " + Get(begun, "code"));
  const ULONGLONG end = GetTickCount64() + std::strtoull(Get(begun, "expiresInSeconds").c_str(), nullptr, 10) * 1000;
  for (std::string said; Left(end) > 0; Sleep(3000)) {
    const Json reply = Ask("pair.check", Text("code", Get(begun, "code")));
    const std::string code = Get(reply, "error");
    const std::string again = Message(code, "pair.check", "again");
    if (code != said) {
      Explain(reply, "pair.check");
    }
    said = code;
    // It is paired, too, where only the account could not be set up yet, and perhaps where the reply was lost.
    if (Is(reply, "paired") || again == "service" || (reply.empty() && Is(Ask("status"), "enrolled"))) {
      Say("This terminal is paired.");
      if (Is(reply, "restarting") && Enter("It restarts in a few seconds. Press Enter to restart at once.")) {
        Explain(Ask("restart.now"), "restart.now");
      }
      return false;
    }
    if (Get(reply, "ok") == "false" && again != "once") {
      return again == "pair";
    }
  }
  return true;
}

void Pair() {
  for (bool on = true; on;) {
    const Json begun = Ask("pair.begin");
    Explain(begun, "pair.begin");
    const DWORD seconds = std::strtoul(Message(Get(begun, "error"), "pair.begin", "again").c_str(), nullptr, 10);
    on = Is(begun, "ok") ? ShowCode(begun) : seconds > 0;
    Sleep(seconds * 1000);
  }
}

// -- the kiosk --------------------------------------------------------------------------------------------------------

// Reports who is at the terminal, every minute and at each change. A report that is lost is made good by the next.
class Presence {
 public:
  Presence() : changed_(CreateEventW(nullptr, FALSE, FALSE, nullptr)), thread_([this] { Report(); }) {}
  ~Presence() {
    stop_ = true;
    SetEvent(changed_.get());
    thread_.join();
  }
  void Set(bool signedIn) {
    signedIn_ = signedIn;
    SetEvent(changed_.get());
  }

 private:
  void Report() {
    while (!stop_) {
      Ask("session.report", signedIn_ ? ",\"signedIn\":true" : ",\"signedIn\":false");
      WaitForSingleObject(changed_.get(), 60'000);
    }
  }

  std::atomic<bool> stop_ = false;
  std::atomic<bool> signedIn_ = false;
  Handle changed_;
  std::thread thread_;  // last, for it uses the others
};

std::string token;  // of the unlock that is in force; in memory only

// Sends a terminal setting and shows one member of a good reply.
void Set(const char* command, const std::string& members, const char* shown) {
  const Json reply = Ask(command, Text("unlockToken", token) + members);
  Explain(reply, command);
  if (Is(reply, "ok")) {
    Say(std::string(shown) + ": " + Get(reply, shown));
  }
}

void Unlock() {
  std::string password = Enter("Exit password:", true).value_or("");
  std::string member = Text("password", password);
  const Json reply = Ask("unlock", member);  // never repeated by itself: each try counts
  Wipe(member);
  Wipe(password);
  Explain(reply, "unlock");
  token = Get(reply, "unlockToken");
  if (Is(reply, "ok")) {
    Say("The settings are open for " + Get(reply, "expiresInSeconds") + " s.");
  }
}

// Follows a search or an installation to its end.
void Updates(const char* command, const std::string& member) {
  const std::string settings = Text("unlockToken", token);
  Json reply = Ask(command, settings + member);
  for (; Is(reply, "checking") || Is(reply, "installing"); reply = Ask("os.updates", settings)) {
    Say(Is(reply, "installing") ? "Installing: " + Get(reply, "progress") + " %" : "Searching ...");
    Sleep(1000);
  }
  Explain(reply, command);
  for (int i = 0; reply.count("updates." + std::to_string(i)) != 0; ++i) {
    Say("Missing: " + Get(reply, "updates." + std::to_string(i) + ".title"));
  }
  if (Is(reply, "ok")) {
    Say(Is(reply, "restartRequired") ? "A restart finishes the installation." : "Nothing is going on.");
  }
}

// One line that the person entered; false: that was the last.
bool Obey(const std::string& line, Presence& presence) {
  std::array<char, 16> word{};
  std::array<char, 300> first{};
  std::array<char, 8> second{};
  static_cast<void>(std::sscanf(line.c_str(), "%15s %299s %7s", word.data(), first.data(), second.data()));
  const std::string_view command = word.data();
  if (command == "in" || command == "out") {
    presence.Set(command == "in");
  } else if (command == "unlock") {
    Unlock();
  } else if (command == "updates") {
    Updates("os.updates", ",\"check\":true");
  } else if (command == "install") {
    Updates("os.install", "");
  } else if (command == "power") {
    Set("power.set", Whole("screenOffMinutes", first.data()) + Whole("sleepMinutes", second.data()),
        "effective.screenOffMinutes");
  } else if (command == "time") {
    Set("time.sync", "", "offsetMs");
  } else if (command == "dhcp") {
    Say("Unless the portal answers within 5 minutes, the former settings come back.");
    Set("net.set", Text("adapter", first.data()) + Text("mode", "dhcp"), "address");
  } else if (command == "proxy") {
    Set("proxy.set", Text("mode", first[0] == 0 ? "none" : "manual") + Text("server", first.data()), "server");
  } else if (command == "maintenance") {
    Set("maintenance", "", "ok");
  }
  return command != "quit";
}

}  // namespace

int main(int count, char** arguments) {
  SetConsoleOutputCP(CP_UTF8);
  std::string content(65536, '\0');
  FILE* file = count > 1 ? std::fopen(arguments[1], "rb") : nullptr;
  content.resize(file != nullptr ? std::fread(content.data(), 1, content.size(), file) : 0);  // open until the end
  std::string_view rest = content;
  Read(rest, "", messages);

  Json status = Ask("status");
  for (int i = 0; i < 10 && status.empty(); ++i, status = Ask("status")) {
    Sleep(1000);  // the service may be just starting
  }
  Explain(status, "status");
  if (Is(status, "ok") && !Is(status, "enrolled")) {
    Pair();
  } else if (Is(status, "ok") && !Is(status, "kioskSession")) {
    Say(Is(status, "provisioned") ? "Restart the computer: it is a kiosk."
                                  : "The kiosk account is still being set up.");
  } else if (Is(status, "ok")) {
    Say("Terminal " + Get(status, "terminalName"));
    Presence presence;
    constexpr char kAsk[] =
        "in, out, unlock, updates, install, power OFF SLEEP, time, dhcp {ADAPTER}, proxy [HOST:PORT], maintenance, "
        "quit?";
    while (Obey(Enter(kAsk).value_or("quit"), presence)) {
    }
  }
  return Is(status, "ok") ? 0 : 1;
}
