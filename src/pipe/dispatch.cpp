#include "pipe/dispatch.h"

#include "account/kiosk_restart.h"
#include "account/maintenance.h"
#include "account/unlock.h"
#include "command/reply.h"
#include "enrolment/kiosk_session.h"
#include "json/parse.h"
#include "network/network.h"
#include "pipe/refusal_log.h"
#include "pipe/status.h"
#include "portal/pairing.h"
#include "power/power_commands.h"
#include "proxy/proxy.h"
#include "text/secret.h"
#include "timesync/time_sync.h"
#include "updates/presence.h"
#include "updates/update_commands.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace kiosk::pipe {
namespace {

// A kind of caller, and what the log says of one who is of another kind; null where it says nothing.
struct CallerClass {
  bool (*admits)(const CallerRecord& caller);
  const char* refusal;
};

constexpr CallerClass kAnyCaller{[](const CallerRecord& /*caller*/) { return true; }, nullptr};
constexpr CallerClass kInteractiveUser{
    [](const CallerRecord& caller) { return caller.isInteractive && !caller.isKioskAccount; }, nullptr};
constexpr CallerClass kInteractivePerson{
    [](const CallerRecord& caller) { return caller.isInteractive && !caller.isSystem && !caller.isKioskAccount; },
    "the caller is not an interactive user other than the kiosk account"};
constexpr CallerClass kKioskSession{[](const CallerRecord& caller) {
                                      return caller.isKioskAccount && caller.sessionId != 0 &&
                                             enrolment::IsKioskSession(caller.sessionId);
                                    },
                                    "the caller is not the kiosk account in its own session"};

// Whether the terminal settings must be unlocked: the request then carries the "unlockToken" of the caller's own
// session.
enum class Settings { kMayBeLocked, kUnlocked };

struct Command {
  std::string_view name;
  const CallerClass& needs;
  Settings settings;
  command::Handler handle;
};

constexpr Command kCommands[] = {
    {"status", kAnyCaller, Settings::kMayBeLocked, pipe::Status},
    {"restart.now", kInteractiveUser, Settings::kMayBeLocked, account::RestartNow},
    {"pair.begin", kInteractivePerson, Settings::kMayBeLocked, portal::PairBegin},
    {"pair.check", kInteractivePerson, Settings::kMayBeLocked, portal::PairCheck},
    {"unlock", kKioskSession, Settings::kMayBeLocked, account::Unlock},
    {"session.report", kKioskSession, Settings::kMayBeLocked, updates::SessionReport},
    {"maintenance", kKioskSession, Settings::kMayBeLocked, account::Maintenance},
    {"net.set", kKioskSession, Settings::kUnlocked, network::NetSet},
    {"time.sync", kKioskSession, Settings::kUnlocked, timesync::TimeSync},
    {"power.get", kKioskSession, Settings::kUnlocked, power::PowerGet},
    {"power.set", kKioskSession, Settings::kUnlocked, power::PowerSet},
    {"proxy.set", kKioskSession, Settings::kUnlocked, proxy::ProxySet},
    {"os.updates", kKioskSession, Settings::kUnlocked, updates::OsUpdates},
    {"os.install", kKioskSession, Settings::kUnlocked, updates::OsInstall},
};

}  // namespace

json::Value Dispatch(const CallerRecord& caller, std::string_view request, command::PostReplyAction& afterReply) {
  json::Value body = json::Parse(request).value_or(json::Value());
  const text::WipeOnExit wipe(body);  // it may hold a password
  if (!body.IsObject()) {
    return command::ErrorReply("bad_request");
  }
  // A name of another type reads as the empty name.
  const std::string& name = json::Member(body, "cmd").text();
  const Command* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                      [&name](const Command& each) { return each.name == name; });
  if (found == std::end(kCommands)) {
    return command::ErrorReply("unknown_command");
  }
  if (!found->needs.admits(caller)) {
    if (found->needs.refusal != nullptr) {
      LogRefusal("%s refused: %s", name.c_str(), found->needs.refusal);
    }
    return command::ErrorReply("not_permitted");
  }
  if (found->settings == Settings::kUnlocked &&
      !account::CheckUnlockToken(json::Member(body, "unlockToken").text(), caller.sessionId)) {
    LogRefusal("%s refused: terminal settings are not unlocked for session %lu", name.c_str(), caller.sessionId);
    return command::ErrorReply("not_unlocked");
  }
  return found->handle({body, caller.sessionId, afterReply});
}

}  // namespace kiosk::pipe
