#include "commands.h"

#include "json/serialise.h"
#include "large_text.h"
#include "pipe_client.h"
#include "state/kiosk_state.h"
#include "text/text.h"
#include "win32/clock.h"
#include "win32/console.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

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
    {"account_create_failed", "Windows did not create the kiosk account. See the service's log."},
    {"account_exists", "A user named NorvaneKiosk exists that is not the kiosk's. Delete or rename that user."},
    {"account_flags_failed", "Windows did not accept the settings of the kiosk account. See the service's log."},
    {"account_lookup_failed", "Windows did not tell whether the kiosk account exists. See the service's log."},
    {"account_password_failed", "Windows did not accept the kiosk account's password. See the service's log."},
    {"already_enrolled", "This terminal is already paired. Remove it in the portal first to pair it anew."},
    {"autologon_in_use", "Windows signs another user in by itself. Switch that off first."},
    {"bad_request", "The service could not read the request."},
    {"busy", "Another password is being checked. Try again in a moment."},
    {"caller_refused", "The service admits only programs that its publisher signed (see the service's log)."},
    {"claimed", "The code was used by another terminal. Start again for a new one."},
    {"expired", "The code has expired. Start again for a new one."},
    {"failed", "Windows refused. See the service's log."},
    {"group_failed", "The kiosk account could not be put into the group Users. See the service's log."},
    {"hive_failed", "The kiosk account could not be locked down. See the service's log."},
    {"invalid", "The service does not accept one of the values. Its log names the field."},
    {"locked", "Too many wrong passwords. Wait five minutes."},
    {"lsa_failed", "The kiosk account's password could not be stored for signing in. See the service's log."},
    {"no_client", "The client program is not installed on this computer. Install it."},
    {"not_enrolled", "This terminal is not paired with a portal, or no longer."},
    {"not_pending", "No restart into kiosk mode is due. Restart the computer as usual if it is to start kiosk mode."},
    {"not_permitted",
     "This user may not do that. Pairing and restarting need somebody signed in at this computer who is not\n"
     "the kiosk account; unlocking and maintenance need the kiosk account in its own session."},
    {"not_provisioned", "The kiosk account is not set up."},
    {"not_unlocked", "The unlock is not valid (any more). Unlock again, or give the exit password."},
    {"profile_failed", "Windows did not create the kiosk account's profile. See the service's log."},
    {"random_failed", "Windows has no random numbers. See the service's log."},
    {"revoked", "The portal says that this terminal was removed. Start again to pair it anew."},
    {"server_error", "The portal answered with something unexpected. Try again later."},
    {"state_write_failed", "The service could not write its settings. See the service's log."},
    {"sync_failed", "Windows did not synchronise the clock. See the service's log."},
    {"token_store_failed",
     "The portal accepted the terminal, but its token could not be stored. See the service's log."},
    {"unknown_adapter", "This computer has no wired or Wi-Fi adapter with that identifier."},
    {"unknown_code", "The service does not know this code any more. Start again for a new one."},
    {"unknown_command", "The service does not know this command."},
    {"unreachable", "The portal (or the time server) cannot be reached. Check the network and the address."},
    {"winlogon_failed", "Windows' automatic sign-in could not be set up. See the service's log."},
    {"wrong_password", "That is not the exit password. It is set in the portal."},
};

// What the service does not say. Only administrators may look there; to anybody else the terminal is just not paired.
bool RemovalPending() { return kiosk::state::FlagIsOn(kiosk::state::kTeardownPending); }

// Prints why there is no reply; returns the exit code.
int NoReply(const Answer& answer) {
  const std::string number = " (error " + std::to_string(answer.error) + ")\n";
  switch (answer.outcome) {
    case Outcome::kNoService:
      PrintError("The kiosk service is not running on this computer" + number);
      if (RemovalPending()) {
        PrintError(
            "Kiosk mode was not removed completely: the kiosk account was in use. If the service was uninstalled,\n"
            "restart the computer and run \"NorvaneKiosk.exe --uninstall\" once more; otherwise start the service.\n");
      }
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

Value Request(const char* command) {
  Value request = Value::Object();
  request.Set("cmd", command);
  return request;
}

Answer AskFor(Value request) {
  std::string line = kiosk::json::Serialise(request);
  request.Wipe();
  Answer answer = Ask(line);
  kiosk::text::Wipe(line);
  return answer;
}

// Sends a request that is answered once; `success` says what a good reply means. Returns the exit code.
int Run(const Options& options, Value request, std::string (*success)(const Value& reply)) {
  const Answer answer = AskFor(std::move(request));
  if (answer.outcome != Outcome::kReply) {
    return NoReply(answer);
  }
  if (options.json) {
    PrintJson(answer.reply);
  } else if (!Ok(answer.reply)) {
    return Refused(answer.reply);
  } else {
    Print(success(answer.reply));
  }
  return Ok(answer.reply) ? kDone : kServiceError;
}

std::string Hosts(const Value& signIn) {
  std::string hosts;
  for (const Value& host : Member(signIn, "extraHosts").items()) {
    hosts += (hosts.empty() ? "" : ", ") + host.text();
  }
  return hosts.empty() ? "none" : hosts;
}

const char* NextStep(const Value& reply) {
  const bool enrolled = Member(reply, "enrolled").boolean();
  const bool provisioned = Member(reply, "provisioned").boolean();
  if (RemovalPending()) {
    return enrolled ? "Kiosk mode is being removed. Ask again in a minute."
                    : "Not paired any more, but the kiosk account could not be removed yet, because it is in use. The\n"
                      "service tries again every 30 seconds; a restart of the computer usually frees it. Pairing the\n"
                      "terminal again takes the account over instead.";
  }
  if (!enrolled) {
    return provisioned
               ? "Not paired with a portal, but the kiosk account is still set up. Run \"kioskctl pair\" and enter\n"
                 "the code in the portal, or \"NorvaneKiosk.exe --uninstall\" to give the computer back."
               : "Not paired with a portal. Run \"kioskctl pair\" and enter the code in the portal.";
  }
  if (!provisioned) {
    return "Paired, but the kiosk account is not set up yet. The service tries again by itself, every ten minutes at\n"
           "the latest; its last error says what it needs. Once the account is set up, restart the computer.";
  }
  if (Member(reply, "maintenance").boolean()) {
    return "In maintenance: the kiosk account does not sign in by itself. To end it, sign out the administrator who\n"
           "signed in after it began, or restart the computer.";
  }
  if (Member(reply, "kioskSession").boolean()) {
    return "In kiosk mode: this is the kiosk account's own session.";
  }
  return "Paired and set up: the kiosk account signs in when Windows starts. Restart the computer to start kiosk "
         "mode,\n"
         "if it does not run yet (right after pairing that happens by itself).";
}

std::string StatusText(const Value& reply) {
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
  return text;
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
  if (Member(reply, "restarting").boolean()) {
    Print("The computer restarts into kiosk mode in " + kiosk::json::AsString(Member(reply, "restartInSeconds")) +
          " seconds.\n");
  } else {
    Print(
        "The portal does not know it yet; the service sets up the kiosk account as soon as it does. \"kioskctl "
        "status\"\n"
        "tells when to restart the computer.\n");
  }
  return kDone;
}

// A pairing that fails in its last step, in which the kiosk account is set up, leaves the terminal paired all the same.
int ReportFailed(const Value& reply, bool countdown) {
  Print(countdown ? "\n" : "");
  const int code = Refused(reply);
  if (const Answer status = AskFor(Request("status")); Member(status.reply, "enrolled").boolean()) {
    Print(std::string(NextStep(status.reply)) + "\n");
  }
  return code;
}

// Polls until the code is claimed or has ended.
int Poll(const std::string& code, std::uint64_t seconds, const Options& options) {
  Value request = Request("pair.check");
  request.Set("code", code);
  const bool countdown = !options.json && kiosk::win32::OutputIsConsole();
  const kiosk::win32::Deadline expiry(seconds * 1000);
  bool warned = false;
  while (true) {
    for (DWORD waited = 0; waited < kPollInterval; waited += kRedrawInterval) {
      Wait(expiry, countdown);
    }
    const Answer answer = AskFor(request);
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
      return options.json ? static_cast<int>(kServiceError) : ReportFailed(answer.reply, countdown);
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
  if (found != std::end(kExplanations)) {
    return std::string(found->sentence) + " [" + code + "]";
  }
  const bool portal =
      code.starts_with("HTTP ") || code.starts_with("WinHTTP error ") || code == "unexpected check-in reply";
  return portal ? "The portal gives no usable answer; the service goes on trying. [" + code + "]" : code;
}

int Status(const Options& options) { return Run(options, Request("status"), StatusText); }

int Restart(const Options& options) {
  return Run(options, Request("restart.now"),
             [](const Value&) -> std::string { return "The computer restarts into kiosk mode now.\n"; });
}

int Pair(const Options& options) {
  const Answer answer = AskFor(Request("pair.begin"));
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

int Unlock(const Options& options, const std::string& password) {
  Value request = Request("unlock");
  request.Set("password", password);
  return Run(options, std::move(request), [](const Value& reply) {
    return "The terminal settings are unlocked for " + kiosk::json::AsString(Member(reply, "expiresInSeconds")) +
           " seconds. Unlock token: " + Member(reply, "unlockToken").text() + "\n";
  });
}

int Maintenance(const Options& options, const std::string& password, const std::string& unlockToken) {
  Value request = Request("maintenance");
  request.Set("password", password).Set("unlockToken", unlockToken);
  return Run(options, std::move(request), [](const Value&) -> std::string {
    return "Maintenance: the kiosk account is being signed out. Sign in as an administrator; signing out again, or a\n"
           "restart, ends it.\n";
  });
}

namespace {

Value UnlockedRequest(const char* command, const std::string& unlockToken) {
  Value request = Request(command);
  request.Set("unlockToken", unlockToken);
  return request;
}

std::string AppliedText(const Value& reply) {
  std::string text;
  for (const std::string& key : reply.keys()) {
    const Value& value = Member(reply, key);
    std::string shown = kiosk::json::AsString(value);
    for (const Value& item : value.items()) {
      shown += (shown.empty() ? "" : ", ") + item.text();
    }
    text += key == "ok" ? "Applied:\n" : "  " + key + "  " + shown + "\n";
  }
  return text;
}

}  // namespace

int TimeSync(const Options& options, const std::string& unlockToken) {
  return Run(options, UnlockedRequest("time.sync", unlockToken), [](const Value& reply) {
    const Value& offset = Member(reply, "offsetMs");
    return "The clock was synchronised with " + Member(reply, "server").text() +
           (offset.IsNumber() ? "; it was " + kiosk::json::AsString(offset) + " ms out.\n" : ".\n");
  });
}

int NetSet(const Options& options, const std::vector<std::string>& words) {
  Value request = UnlockedRequest("net.set", words[1]);
  request.Set("adapter", words[2]);
  const std::string& own = words[3];
  const bool dhcp = own == "dhcp";
  request.Set("mode", dhcp ? "dhcp" : "static");
  std::size_t next = 4;
  if (!dhcp) {
    const std::size_t slash = std::min(own.find('/'), own.size());
    request.Set("address", own.substr(0, slash));
    request.Set("prefixLength", std::atoi(own.substr(std::min(slash + 1, own.size())).c_str()));
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
  return Run(options, std::move(request), AppliedText);
}

int ProxySet(const Options& options, const std::vector<std::string>& words) {
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
#endif

}  // namespace kioskctl
