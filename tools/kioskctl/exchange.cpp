#include "exchange.h"

#include "json/serialise.h"
#include "state/kiosk_state.h"
#include "text/text.h"
#include "win32/console.h"
#include "win32/local_path.h"
#include "win32/program_path.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <utility>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::Print;
using kiosk::win32::PrintError;

struct Explanation {
  const char* code;
  const char* sentence;
  const char* command = "";  // the one command for which it means this
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
    {"busy", "The password cannot be checked just now, for instance while another one is. Try again in a moment."},
    {"busy", "A search or an installation is going already. Follow it with \"updates\".", "os.install"},
    {"caller_refused", "The service admits only programs that its publisher signed (see the service's log)."},
    {"claimed", "The code was used by another terminal. Start again for a new one."},
    {"expired", "The code has expired. Start again for a new one."},
    {"failed", "Windows refused. See the service's log."},
    {"failed", "Windows refused; the settings from before are in force again. See the service's log.", "net.set"},
    {"failed", "Windows refused; the proxy is as it was. See the service's log.", "proxy.set"},
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
     "the kiosk account; unlocking, maintenance and settings need the kiosk account in its own session."},
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
    {"unreachable", "The portal cannot be reached. Check the network and the address."},
    {"unreachable", "The time server cannot be reached. Check the network and the server's name.", "time.sync"},
    {"wake_unavailable", "It is not sure that this computer wakes by itself; see the service's log."},
    {"winlogon_failed", "Windows' automatic sign-in could not be set up. See the service's log."},
    {"wrong_password", "That is not the exit password. It is set in the portal."},
};

// The sentence of the command's own, failing that the common one, failing that null.
const char* Sentence(const std::string& code, std::string_view command) {
  const char* found = nullptr;
  for (const Explanation& each : kExplanations) {
    if (code == each.code && (command == each.command || (found == nullptr && *each.command == 0))) {
      found = each.sentence;
    }
  }
  return found;
}

std::string OneLine(std::string text) {
  kiosk::text::MakeSingleLine(text.data(), text.size());
  return text;
}

// The service looks at no program on a share or on a network drive.
bool StartedFromElsewhere() { return !kiosk::win32::IsLocalPath(kiosk::win32::ProgramPath()); }

// Why nobody serves the pipe, or answers on it, as far as the service manager knows.
std::string WhyNoReply(unsigned long error) {
  const ServiceState service = QueryService();
  if (!service.known && service.error == ERROR_SERVICE_DOES_NOT_EXIST) {
    return "The kiosk service is not installed on this computer" + ErrorText(service.error) + "\n";
  }
  if (service.known && service.state != SERVICE_RUNNING) {
    return std::string("The kiosk service ") + StateText(service.state) + ErrorText(ERROR_SERVICE_NOT_ACTIVE) +
           (service.state == SERVICE_STOPPED ? "\nStart it as an administrator: sc.exe start NorvaneKiosk\n"
                                             : "\nTry again in a minute.\n");
  }
  if (service.known && (error == ERROR_PIPE_BUSY || error == ERROR_TIMEOUT)) {
    return "The kiosk service runs and does not answer" + ErrorText(error) +
           "\nAs an administrator make a support bundle with " + CommandLine("support-bundle") +
           ", then restart the service.\n";
  }
  return "The kiosk service does not answer on this computer" + ErrorText(error) + "\n";
}

int NoReply(const Answer& answer) {
  switch (answer.outcome) {
    case Outcome::kNotAllowed:
      PrintError("Windows does not let this user talk to the kiosk service: sign in at this computer" +
                 ErrorText(answer.error) + "\n");
      break;
    case Outcome::kImpostor:
      PrintError("Another program has taken the kiosk service's place; nothing was sent to it.\n");
      break;
    default:
      PrintError(WhyNoReply(answer.error));
      if (RemovalPending()) {
        PrintError(
            "Kiosk mode was not removed completely: the kiosk account was in use. If the service was uninstalled,\n"
            "restart the computer and run \"NorvaneKiosk.exe --uninstall\" once more; otherwise start the service.\n");
      }
      break;
  }
  return kNoService;
}

// As AskFor; a person at a console sees for how long it has been going.
Answer AskAndShow(Value request, unsigned long replyWait) {
  const kiosk::win32::KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  kiosk::win32::KernelHandle ticker;
  if (done && kiosk::win32::OutputIsConsole()) {
    ticker = kiosk::win32::StartThread([&done]() noexcept {
      for (int seconds = 1; WaitForSingleObject(done.Get(), 1'000) == WAIT_TIMEOUT; ++seconds) {
        Print("\r  waiting for the service, " + std::to_string(seconds) + " s ");
      }
    });
  }
  Answer answer = AskFor(std::move(request), replyWait);
  if (ticker) {
    SetEvent(done.Get());
    WaitForSingleObject(ticker.Get(), INFINITE);
    Print("\r" + std::string(40, ' ') + "\r");
  }
  return answer;
}

}  // namespace

std::string CommandLine(const char* command) { return "\"" + std::string(kProgram) + " " + command + "\""; }

std::string ErrorText(unsigned long error) { return " (error " + std::to_string(error) + ")"; }

const char* StateText(unsigned long state) {
  return state == SERVICE_STOPPED         ? "is stopped"
         : state == SERVICE_START_PENDING ? "is still starting"
         : state == SERVICE_STOP_PENDING  ? "is still stopping"
                                          : "is paused";
}

Value Shown(const Value& reply) {
  if (reply.IsString()) {
    return OneLine(reply.text());
  }
  if (!reply.IsArray() && !reply.IsObject()) {
    return reply;
  }
  Value shown = reply.IsArray() ? Value::Array() : Value::Object();
  for (const Value& item : reply.items()) {
    shown.Append(Shown(item));
  }
  for (std::size_t i = 0; i < reply.keys().size(); ++i) {
    shown.Set(reply.keys()[i], Shown(reply.values()[i]));
  }
  return shown;
}

std::string Explain(const std::string& code, std::string_view command) {
  if (const char* sentence = Sentence(code, command); sentence != nullptr) {
    return std::string(sentence) + " [" + code + "]";
  }
  const bool portal =
      code.starts_with("HTTP ") || code.starts_with("WinHTTP error ") || code == "unexpected check-in reply";
  return portal ? "The portal gives no usable answer; the service goes on trying. [" + code + "]" : code;
}

bool RemovalPending() { return kiosk::state::FlagIsOn(kiosk::state::kTeardownPending); }

bool Ok(const Answer& answer) { return answer.outcome == Outcome::kReply && Member(answer.reply, "ok").boolean(); }

void PrintJson(const Value& value) {
  std::string text;
  for (const wchar_t unit : kiosk::win32::ToWide(kiosk::json::Serialise(value))) {
    if (unit < 0x7f) {
      text += static_cast<char>(unit);
    } else {
      text += "\\u";
      kiosk::text::AppendHex(text, static_cast<unsigned char>(unit >> 8));
      kiosk::text::AppendHex(text, static_cast<unsigned char>(unit & 0xff));
    }
  }
  Print(text + "\n");
}

void PrintReply(const Answer& answer) {
  if (answer.outcome == Outcome::kReply) {
    PrintJson(answer.reply);
  }
}

int Failed(const Options& options, const Answer& answer, std::string_view command) {
  if (answer.outcome != Outcome::kReply) {
    return NoReply(answer);
  }
  if (!options.json) {
    const std::string code = OneLine(Member(answer.reply, "error").text());
    PrintError(Explain(code, command) + "\n");
    if (code == "caller_refused" && StartedFromElsewhere()) {
      PrintError("This program was not started from a disk of this computer: copy it to this computer first.\n");
    }
  }
  return kServiceError;
}

int WrongUsage(const std::string& problem) {
  PrintError(std::string(kProgram) + ": " + problem + "\nSee " + CommandLine("--help") + ".\n");
  return kUsage;
}

Value Request(const char* command) {
  Value request = Value::Object();
  request.Set("cmd", command);
  return request;
}

Answer AskFor(Value request, unsigned long replyWait) {
  kiosk::text::Secret line(kiosk::json::Serialise(request));
  request.Wipe();
  return Ask(std::move(line), replyWait);
}

int Run(const Options& options, Value request, std::string (*success)(const Value& reply), unsigned long replyWait) {
  const std::string command = Member(request, "cmd").text();
  Answer answer = options.json ? AskFor(std::move(request), replyWait) : AskAndShow(std::move(request), replyWait);
  const kiosk::text::WipeOnExit wipe(answer.reply);
  if (options.json) {
    PrintReply(answer);
  }
  if (!Ok(answer)) {
    return Failed(options, answer, command);
  }
  if (!options.json) {
    Value shown = Shown(answer.reply);
    const kiosk::text::WipeOnExit wipeShown(shown);
    Print(success(shown));
  }
  return kDone;
}

}  // namespace kioskctl
