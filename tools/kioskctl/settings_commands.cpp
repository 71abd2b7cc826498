// For developers and tests: what the kiosk shell sends from the kiosk account's own session.
#include "commands.h"

#include "json/parse.h"
#include "win32/console.h"
#include "win32/handle.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;

// Milliseconds; more than the 12 minutes that "net.set" takes at most, when everything has to be put back again.
constexpr unsigned long kNetSetWait = 750'000;
constexpr std::size_t kColumn = 14;

std::string AppliedText(const Value& reply) {
  std::string text;
  for (const std::string& key : reply.keys()) {
    const Value& value = Member(reply, key);
    std::string shown = kiosk::json::AsString(value);
    for (const Value& item : value.items()) {
      shown += (shown.empty() ? "" : ", ") + item.text();
    }
    const std::string gap(key.size() < kColumn ? kColumn - key.size() : 1, ' ');
    text += key == "ok" ? "Applied:\n" : "  " + key + gap + shown + "\n";
  }
  return text;
}

// The request that "-" (standard input) or "@FILE" stands for, on one line. A program of Windows may have written it as
// UTF-16, or with a byte order mark. Returns a Windows error.
DWORD ReadRequest(const std::string& word, kiosk::text::Secret& request) {
  kiosk::win32::FileHandle file;
  HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  if (word != "-") {
    file.Reset(CreateFileW(kiosk::win32::ToWide(word.substr(1)).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                           OPEN_EXISTING, 0, nullptr));
    if (!file) {
      return GetLastError();
    }
    input = file.Get();
  }
  std::string text;
  char piece[4096];
  DWORD read = 1;
  while (read != 0) {
    if (ReadFile(input, piece, sizeof(piece), &read, nullptr) == 0) {
      if (GetLastError() != ERROR_BROKEN_PIPE) {  // how a pipe ends
        return GetLastError();
      }
      read = 0;
    }
    text.append(piece, read);
  }
  if (text.starts_with("\xff\xfe")) {
    text = kiosk::win32::ToNarrow(
        std::wstring_view(reinterpret_cast<const wchar_t*>(text.data()), text.size() / sizeof(wchar_t)));
  }
  text.erase(0, text.starts_with("\xef\xbb\xbf") ? 3 : 0);
  // A line end would end the request.
  std::replace_if(
      text.begin(), text.end(), [](char byte) { return byte == '\n' || byte == '\r'; }, ' ');
  request = kiosk::text::Secret(std::move(text));
  return ERROR_SUCCESS;
}

// A number in digits. Whether the service takes it is the service's to say.
std::optional<int> Whole(const std::string& word) {
  int number = 0;
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::string Idleness(const Value& minutes) {
  return minutes.number() == 0 ? "never" : "after " + kiosk::json::AsString(minutes) + " minutes of idleness";
}

std::string PolicyText(const Value& policy) {
  const Value& schedule = Member(policy, "schedule");
  std::string text = "  Display off  " + Idleness(Member(policy, "screenOffMinutes")) + "\n";
  text += "  Sleep        " + Idleness(Member(policy, "sleepMinutes")) + "\n  Schedule     ";
  if (!Member(schedule, "enabled").boolean()) {
    return text + "none\n";
  }
  return text + "sleeps at " + Member(schedule, "sleepAt").text() + ", wakes at " + Member(schedule, "wakeAt").text() +
         "," + DayNames(Member(schedule, "days")) + "\n";
}

std::string PowerText(const Value& reply) {
  const Value& local = Member(reply, "local");
  const std::string portal = "the portal's policy (" + Member(reply, "source").text() + ")";
  std::string text = (local.IsNull() ? "In force is " + portal : std::string("In force is what was set here")) + ":\n" +
                     PolicyText(Member(reply, "effective"));
  if (!local.IsNull()) {
    text += "\"power UNLOCK-TOKEN portal\" goes back to " + portal + ":\n" + PolicyText(Member(reply, "policy"));
  }
  if (const std::string& error = Member(reply, "error").text(); !error.empty()) {
    text += Explain(error) + "\n";
  }
  return text;
}

}  // namespace

Value UnlockedRequest(const char* command, const std::string& unlockToken) {
  Value request = Request(command);
  request.Set("unlockToken", unlockToken);
  return request;
}

std::string DayNames(const Value& days) {
  constexpr const char* kNames[] = {" Sun", " Mon", " Tue", " Wed", " Thu", " Fri", " Sat"};
  std::string text;
  for (const Value& day : days.items()) {
    text += day.number() >= 0 && day.number() < 7 ? kNames[static_cast<int>(day.number())] : " ?";
  }
  return text;
}

int Send(const Options& /*options*/, const Words& words) {
  kiosk::text::Secret request(words[1]);
  if (words[1] == "-" || words[1].starts_with('@')) {
    const DWORD error = ReadRequest(words[1], request);
    if (error != ERROR_SUCCESS) {
      return WrongUsage("cannot read the request" + ErrorText(error));
    }
  }
  const Answer answer = Ask(std::move(request));
  PrintReply(answer);
  return Ok(answer) ? static_cast<int>(kDone) : Failed({.json = true}, answer);
}

int Unlock(const Options& options, const Words& words) {
  Value request = Request("unlock");
  request.Set("password", words[1]);
  return Run(options, std::move(request), [](const Value& reply) {
    return "The terminal settings are unlocked for " + kiosk::json::AsString(Member(reply, "expiresInSeconds")) +
           " seconds. Unlock token: " + Member(reply, "unlockToken").text() + "\n";
  });
}

int Maintenance(const Options& options, const Words& words) {
  Value request = Request("maintenance");
  request.Set("password", words[1]).Set("unlockToken", words.size() > 2 ? words[2] : std::string());
  return Run(options, std::move(request), [](const Value&) -> std::string {
    return "Maintenance: the kiosk account is being signed out. Sign in as an administrator; signing out again, or a\n"
           "restart, ends it.\n";
  });
}

int Power(const Options& options, const Words& words) {
  if (words.size() == 2) {
    return Run(options, UnlockedRequest("power.get", words[1]), PowerText);
  }
  Value request = UnlockedRequest("power.set", words[1]);
  if (words.size() == 3) {
    if (words[2] != "portal") {
      return WrongUsage(R"("power" takes two numbers of minutes, or "portal")");
    }
    request.Set("useOrganisation", true);
    return Run(options, std::move(request), PowerText);
  }
  const std::optional<int> screenOff = Whole(words[2]);
  const std::optional<int> sleep = Whole(words[3]);
  if (!screenOff || !sleep) {
    return WrongUsage(R"("power" takes minutes as whole numbers)");
  }
  request.Set("screenOffMinutes", *screenOff).Set("sleepMinutes", *sleep);
  if (words.size() > 4) {
    std::string problem;
    auto schedule = kiosk::json::Parse(words[4], &problem);
    if (!schedule) {
      return WrongUsage("the schedule is no JSON: " + problem);
    }
    request.Set("schedule", std::move(*schedule));
  }
  return Run(options, std::move(request), PowerText);
}

int TimeSync(const Options& options, const Words& words) {
  return Run(options, UnlockedRequest("time.sync", words[1]), [](const Value& reply) {
    const Value& offset = Member(reply, "offsetMs");
    return "The clock was synchronised with " + Member(reply, "server").text() +
           (offset.IsNumber() ? "; it was " + kiosk::json::AsString(offset) + " ms out.\n" : ".\n");
  });
}

int NetSet(const Options& options, const Words& words) {
  Value request = UnlockedRequest("net.set", words[1]);
  request.Set("adapter", words[2]);
  const std::string& own = words[3];
  const bool dhcp = own == "dhcp";
  request.Set("mode", dhcp ? "dhcp" : "static");
  std::size_t next = 4;
  if (!dhcp) {
    const std::size_t slash = std::min(own.find('/'), own.size());
    request.Set("address", own.substr(0, slash));
    request.Set("prefixLength", Whole(own.substr(std::min(slash + 1, own.size()))).value_or(0));
    if (words.size() > next && words[next] != "-") {
      request.Set("gateway", words[next]);
    }
    ++next;
  }
  Value dns = Value::Array();
  for (; next < words.size(); ++next) {
    dns.Append(words[next]);
  }
  request.Set("dns", std::move(dns));
  if (options.keep) {
    request.Set("keep", true);
  }
  if (!options.json) {
    kiosk::win32::Print("Windows changes the adapter now. That may take some minutes, more when it has to go back.\n");
  }
  return Run(options, std::move(request), AppliedText, kNetSetWait);
}

int ProxySet(const Options& options, const Words& words) {
  Value request = UnlockedRequest("proxy.set", words[1]);
  request.Set("mode", words[2]);
  if (words.size() > 3) {
    request.Set(words[2] == "auto" ? "pacUrl" : "server", words[3]);
  }
  if (words.size() > 4) {
    request.Set("bypass", words[4]);
  }
  return Run(options, std::move(request), AppliedText);
}

}  // namespace kioskctl
