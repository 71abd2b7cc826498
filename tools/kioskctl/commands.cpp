#include "commands.h"

#include "large_text.h"
#include "win32/clock.h"
#include "win32/console.h"

#include <algorithm>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::Print;

constexpr DWORD kPollInterval = 3'000;
constexpr DWORD kRedrawInterval = 1'000;

std::string Hosts(const Value& signIn) {
  std::string hosts;
  for (const Value& host : Member(signIn, "extraHosts").items()) {
    hosts += (hosts.empty() ? "" : ", ") + host.text();
  }
  return hosts.empty() ? "none" : hosts;
}

std::string NextStep(const Value& reply) {
  const bool enrolled = Member(reply, "enrolled").boolean();
  const bool provisioned = Member(reply, "provisioned").boolean();
  if (RemovalPending()) {
    return enrolled ? "Kiosk mode is being removed. Ask again in a minute."
                    : "Not paired any more, but the kiosk account could not be removed yet, because it is in use. The\n"
                      "service tries again every 30 seconds; a restart of the computer usually frees it. Pairing the\n"
                      "terminal again takes the account over instead.";
  }
  if (!enrolled) {
    return provisioned ? "Not paired with a portal, but the kiosk account is still set up. Run " + CommandLine("pair") +
                             " and enter\nthe code in the portal, or \"NorvaneKiosk.exe --uninstall\" to give the "
                             "computer back."
                       : "Not paired with a portal. Run " + CommandLine("pair") + " and enter the code in the portal.";
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
  std::string text = NextStep(reply) + "\n\n";
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
    Print("The portal does not know it yet; the service sets up the kiosk account as soon as it does.\n" +
          CommandLine("status") + " tells when to restart the computer.\n");
  }
  return kDone;
}

// A pairing that fails in its last step, in which the kiosk account is set up, leaves the terminal paired all the same.
int ReportFailed(const Answer& answer, bool countdown) {
  Print(countdown ? "\n" : "");
  const int code = Failed({}, answer);
  if (const Answer status = AskFor(Request("status")); Member(status.reply, "enrolled").boolean()) {
    Print(NextStep(status.reply) + "\n");
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
    const Answer answer = AskFor(request, kPairWait);
    const bool paired = Member(answer.reply, "paired").boolean();
    if (options.json && (paired || !Ok(answer))) {
      PrintReply(answer);
    }
    if (paired) {
      return options.json ? static_cast<int>(kDone) : ReportPaired(Shown(answer.reply), countdown);
    }
    if (!Ok(answer)) {
      const bool explained = answer.outcome == Outcome::kReply && !options.json;
      return explained ? ReportFailed(answer, countdown) : Failed(options, answer);
    }
    const bool unreachable = Member(answer.reply, "error").text() == "unreachable";
    if (unreachable && !warned && !options.json) {
      Print("\nThe portal does not answer at the moment; the code stays valid.\n");
    }
    warned = unreachable;
  }
}

}  // namespace

int Status(const Options& options, const Words& /*words*/) {
  return Run(options, Request("status"), StatusText, kStatusWait);
}

int Restart(const Options& options, const Words& /*words*/) {
  return Run(options, Request("restart.now"),
             [](const Value&) -> std::string { return "The computer restarts into kiosk mode now.\n"; });
}

int Pair(const Options& options, const Words& /*words*/) {
  const Answer answer = AskFor(Request("pair.begin"), kPairWait);
  if (options.json) {
    PrintReply(answer);
  }
  if (!Ok(answer)) {
    return Failed(options, answer);
  }
  const std::string code = Member(Shown(answer.reply), "code").text();
  const double lifetime = std::clamp(Member(answer.reply, "expiresInSeconds").number(), 0.0, 86'400.0);
  const auto seconds = static_cast<std::uint64_t>(lifetime);
  if (!options.json) {
    ShowCode(code, seconds);
  }
  return Poll(code, seconds, options);
}

}  // namespace kioskctl
