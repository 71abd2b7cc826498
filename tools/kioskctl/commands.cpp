#include "commands.h"

#include "json/serialise.h"
#include "large_text.h"
#include "pipe_client.h"
#include "win32/clock.h"
#include "win32/console.h"

#include <algorithm>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr DWORD kPollInterval = 3'000;
constexpr DWORD kRedrawInterval = 1'000;

struct Explanation {
  const char* code;
  const char* sentence;
};

constexpr Explanation kExplanations[] = {
    {"already_enrolled", "This terminal is already paired. Remove it in the portal first to pair it anew."},
    {"bad_request", "The service could not read the request."},
    {"caller_refused", "The service admits only programs that its publisher signed (see the service's log)."},
    {"claimed", "The code was used by another terminal. Start again for a new one."},
    {"expired", "The code has expired. Start again for a new one."},
    {"not_permitted", "This needs a person signed in at this computer with an account other than the kiosk's."},
    {"server_error", "The portal answered with something unexpected. Try again later."},
    {"token_store_failed", "The portal accepted the terminal, but its token could not be stored. See the service's log."},
    {"unknown_code", "The service does not know this code any more. Start again for a new one."},
    {"unknown_command", "The service does not know this command."},
    {"unreachable", "The portal cannot be reached. Check the network and the portal's address."},
};

// Prints why there is no reply; returns the exit code.
int NoReply(const Answer& answer) {
  const std::string number = " (error " + std::to_string(answer.error) + ")\n";
  switch (answer.outcome) {
    case Outcome::kNoService:
      PrintError("The kiosk service is not running on this computer" + number);
      break;
    case Outcome::kNotAllowed:
      PrintError("Windows does not let this user talk to the kiosk service: sign in at this computer" + number);
      break;
    case Outcome::kImpostor:
      PrintError("Another program has taken the kiosk service's place; nothing was sent to it.\n");
      break;
    default:
      PrintError("The connection to the kiosk service ended without a reply" + number);
      break;
  }
  return kNoService;
}

void PrintJson(const Value& reply) { Print(kiosk::json::Serialise(reply) + "\n"); }

bool Ok(const Value& reply) { return Member(reply, "ok").boolean(); }

// Prints the service's error; returns the exit code.
int Refused(const Value& reply) {
  PrintError(Explain(Member(reply, "error").text()) + "\n");
  return kServiceError;
}

std::string Request(const char* command) {
  Value request = Value::Object();
  request.Set("cmd", command);
  return kiosk::json::Serialise(request);
}

std::string Hosts(const Value& signIn) {
  std::string hosts;
  for (const Value& host : Member(signIn, "extraHosts").items()) {
    hosts += (hosts.empty() ? "" : ", ") + host.text();
  }
  return hosts.empty() ? "none" : hosts;
}

const char* NextStep(const Value& reply) {
  if (!Member(reply, "enrolled").boolean()) {
    return "Not paired with a portal. Run \"kioskctl pair\" and enter the code in the portal.";
  }
  if (!Member(reply, "provisioned").boolean()) {
    return "Paired. The kiosk account is not set up yet.";
  }
  if (Member(reply, "maintenance").boolean()) {
    return "In maintenance: the kiosk account does not sign in by itself.";
  }
  return "Paired and ready: the kiosk account signs in when Windows starts.";
}

void PrintStatus(const Value& reply) {
  const Value& signIn = Member(reply, "signIn");
  const auto yesNo = [](const Value& flag) { return flag.boolean() ? "yes\n" : "no\n"; };
  const std::string& name = Member(reply, "terminalName").text();
  std::string text = std::string(NextStep(reply)) + "\n\n";
  text += "  Name          " + (name.empty() ? std::string("none") : name) + "\n";
  text += std::string("  Paired        ") + yesNo(Member(reply, "enrolled"));
  text += "  Account       " + Member(reply, "account").text() +
          (Member(reply, "provisioned").boolean() ? ", set up\n" : ", not set up\n");
  text += std::string("  Maintenance   ") + yesNo(Member(reply, "maintenance"));
  text += std::string("  Kiosk session ") + yesNo(Member(reply, "kioskSession"));
  text += std::string("  Microsoft     ") + yesNo(Member(signIn, "microsoft"));
  text += std::string("  E-mail        ") + yesNo(Member(signIn, "email"));
  text += "  Extra hosts   " + Hosts(signIn) + "\n";
  if (const std::string& error = Member(reply, "error").text(); !error.empty()) {
    text += "  Last error    " + Explain(error) + "\n";
  }
  Print(text);
}

// "09:59" for 599.
std::string Clock(std::uint64_t seconds) {
  const auto two = [](std::uint64_t number) { return (number < 10 ? "0" : "") + std::to_string(number); };
  return two(seconds / 60) + ":" + two(seconds % 60);
}

void ShowCode(const std::string& code, std::uint64_t seconds) {
  Print("Enter this code in the portal:\n\n" + LargeText(code) + "\n  " + code + "   (valid for " + Clock(seconds) +
        ")\n\n");
}

// One second of waiting, with the countdown where somebody can see it.
void Wait(const kiosk::win32::Deadline& expiry, bool countdown) {
  if (countdown) {
    Print("\r  waiting for the portal, " + Clock(expiry.Left() / 1000) + " left ");
  }
  Sleep(kRedrawInterval);
}

int ReportPaired(const Value& reply, bool countdown) {
  Print(countdown ? "\n" : "");
  Print("This terminal is paired.\n");
  if (Member(reply, "error").text() == "unreachable") {
    Print("The portal did not answer the first check-in; the service keeps trying by itself.\n");
  }
  return kDone;
}

// Polls until the code is claimed or has ended.
int Poll(const std::string& code, std::uint64_t seconds, const Options& options) {
  Value request = Value::Object();
  request.Set("cmd", "pair.check").Set("code", code);
  const std::string line = kiosk::json::Serialise(request);
  const bool countdown = !options.json && kiosk::win32::OutputIsConsole();
  const kiosk::win32::Deadline expiry(seconds * 1000);
  bool warned = false;
  while (true) {
    for (DWORD waited = 0; waited < kPollInterval; waited += kRedrawInterval) {
      Wait(expiry, countdown);
    }
    const Answer answer = Ask(line);
    if (answer.outcome != Outcome::kReply) {
      return NoReply(answer);
    }
    const bool paired = Member(answer.reply, "paired").boolean();
    if (options.json && (paired || !Ok(answer.reply))) {
      PrintJson(answer.reply);
    }
    if (paired) {
      return options.json ? static_cast<int>(kDone) : ReportPaired(answer.reply, countdown);
    }
    if (!Ok(answer.reply)) {
      return options.json ? static_cast<int>(kServiceError) : Refused(answer.reply);
    }
    const bool unreachable = Member(answer.reply, "error").text() == "unreachable";
    if (unreachable && !warned && !options.json) {
      Print("\nThe portal does not answer at the moment; the code stays valid.\n");
    }
    warned = unreachable;
  }
}

}  // namespace

std::string Explain(const std::string& code) {
  const auto* found = std::find_if(std::begin(kExplanations), std::end(kExplanations),
                                   [&code](const Explanation& each) { return code == each.code; });
  return found != std::end(kExplanations) ? std::string(found->sentence) + " [" + code + "]" : code;
}

int Status(const Options& options) {
  const Answer answer = Ask(Request("status"));
  if (answer.outcome != Outcome::kReply) {
    return NoReply(answer);
  }
  if (options.json) {
    PrintJson(answer.reply);
  } else if (Ok(answer.reply)) {
    PrintStatus(answer.reply);
  } else {
    return Refused(answer.reply);
  }
  return Ok(answer.reply) ? kDone : kServiceError;
}

int Pair(const Options& options) {
  const Answer answer = Ask(Request("pair.begin"));
  if (answer.outcome != Outcome::kReply) {
    return NoReply(answer);
  }
  if (options.json) {
    PrintJson(answer.reply);
  }
  if (!Ok(answer.reply)) {
    return options.json ? static_cast<int>(kServiceError) : Refused(answer.reply);
  }
  const std::string code = Member(answer.reply, "code").text();
  const double lifetime = std::clamp(Member(answer.reply, "expiresInSeconds").number(), 0.0, 86'400.0);
  const auto seconds = static_cast<std::uint64_t>(lifetime);
  if (!options.json) {
    ShowCode(code, seconds);
  }
  return Poll(code, seconds, options);
}

#ifdef NORVANE_DEVELOPMENT_COMMANDS
int Send(const Options& /*options*/, const std::string& request) {
  const Answer answer = Ask(request);
  if (answer.outcome != Outcome::kReply) {
    return NoReply(answer);
  }
  PrintJson(answer.reply);
  return Ok(answer.reply) ? kDone : kServiceError;
}
#endif

}  // namespace kioskctl
