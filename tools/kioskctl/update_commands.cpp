// For developers and tests: the updates of the operating system, as the kiosk shell shows them.
#include "commands.h"

#include "json/serialise.h"
#include "win32/console.h"
#include "win32/winapi.h"

#include <algorithm>
#include <utility>

namespace kioskctl {
namespace {

using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::Print;
using kiosk::win32::PrintError;

constexpr DWORD kPollInterval = 500;
constexpr int kBarWidth = 40;

bool Going(const Value& reply) { return Member(reply, "checking").boolean() || Member(reply, "installing").boolean(); }

int Percent(const Value& reply) { return static_cast<int>(std::clamp(Member(reply, "progress").number(), 0.0, 100.0)); }

std::string Stage(const Value& reply) {
  const bool installing = Member(reply, "installing").boolean();
  return installing ? "installing, " + std::to_string(Percent(reply)) + " %" : std::string("searching");
}

std::string Bar(const Value& reply) {
  const auto filled = static_cast<std::size_t>(Percent(reply) * kBarWidth / 100);
  return "\r  [" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " + Stage(reply) + "     ";
}

std::string Size(const Value& bytes) {
  const double megabytes = bytes.number() / (1024.0 * 1024.0);
  return bytes.number() <= 0     ? "unknown size"
         : megabytes < 1         ? "less than 1 MB"
         : megabytes < 1'000'000 ? std::to_string(static_cast<int>(megabytes)) + " MB"
                                 : "very large";
}

std::string PolicyText(const Value& policy) {
  if (policy.IsNull()) {
    return "The portal has set no policy for updates.\n";
  }
  const Value& window = Member(policy, "window");
  return std::string(Member(policy, "automatic").boolean() ? "Installed automatically"
                                                           : "Not installed automatically") +
         "; maintenance window " + Member(window, "start").text() + " to " + Member(window, "end").text() + "," +
         DayNames(Member(window, "days")) + ".\n";
}

std::string UpdatesText(const Value& reply) {
  const Value& lastChecked = Member(reply, "lastChecked");
  const std::vector<Value>& updates = Member(reply, "updates").items();
  std::string text = lastChecked.IsNull() ? "Nobody has searched for updates since the service started.\n"
                     : updates.empty()    ? "No update is missing.\n"
                                          : std::to_string(updates.size()) + " missing:\n";
  for (const Value& update : updates) {
    text += "  " + Member(update, "title").text() + " (" + Size(Member(update, "sizeBytes")) +
            (Member(update, "restartRequired").boolean() ? ", may need a restart)\n" : ")\n");
  }
  text += lastChecked.IsNull() ? "" : "Last search: " + lastChecked.text() + " (UTC)\n";
  if (Member(reply, "restartRequired").boolean()) {
    text += "Windows must restart to finish an installation; the next maintenance window does that.\n";
  }
  if (const std::string& error = Member(reply, "error").text(); !error.empty()) {
    text += error == "busy" ? "The last run failed: Windows was installing something itself. [busy]\n"
                            : "The last run failed: " + error + "\n";
  }
  return text + PolicyText(Member(reply, "policy"));
}

// Shows what came since the reply before.
class Progress {
 public:
  explicit Progress(const Options& options) : json_(options.json), bar_(!json_ && kiosk::win32::OutputIsConsole()) {}

  void Show(const Value& reply) {
    const bool follows = Going(reply);
    std::string now = json_ ? kiosk::json::Serialise(reply) + "\n" : bar_ ? Bar(reply) : "  " + Stage(reply) + "\n";
    if ((json_ || follows) && now != last_) {
      Print(now);
      last_ = std::move(now);
    }
  }
  // To the beginning of a line.
  void End() const { Print(bar_ && !last_.empty() ? "\n" : ""); }

 private:
  bool json_;
  bool bar_;
  std::string last_;
};

// Asks until nothing is going any more. `began`: what this program asked for itself counts for the exit code.
int Follow(const Options& options, Answer answer, const std::string& unlockToken, bool began, const char* command) {
  Progress progress(options);
  for (bool first = true;; first = false) {
    if (!Ok(answer)) {
      const bool replied = answer.outcome == Outcome::kReply;
      progress.End();
      if (replied && options.json) {
        progress.Show(answer.reply);
      }
      const int code = Failed(options, answer, first ? command : "os.updates");
      if (replied && !options.json && !first) {
        PrintError("The service goes on by itself.\n");  // an unlock may end before an installation does
      }
      return code;
    }
    progress.Show(answer.reply);
    if (!Going(answer.reply)) {
      break;
    }
    Sleep(kPollInterval);
    answer = AskFor(UnlockedRequest("os.updates", unlockToken));
  }
  progress.End();
  if (!options.json) {
    Print(UpdatesText(Shown(answer.reply)));
  }
  return began && !Member(answer.reply, "error").IsNull() ? kServiceError : kDone;
}

}  // namespace

int Updates(const Options& options, const Words& words) {
  const bool check = words.size() > 2;
  if (check && words[2] != "check") {
    return WrongUsage(R"(after the unlock token "updates" takes nothing but "check")");
  }
  Value request = UnlockedRequest("os.updates", words[1]);
  if (check) {
    request.Set("check", true);
  }
  return Follow(options, AskFor(std::move(request)), words[1], check, "os.updates");
}

int InstallUpdates(const Options& options, const Words& words) {
  return Follow(options, AskFor(UnlockedRequest("os.install", words[1])), words[1], true, "os.install");
}

}  // namespace kioskctl
