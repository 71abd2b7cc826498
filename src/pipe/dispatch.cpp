#include "pipe/dispatch.h"

#include "account/kiosk_restart.h"
#include "account/maintenance.h"
#include "account/unlock.h"
#include "enrolment/kiosk_session.h"
#include "json/parse.h"
#include "log/log.h"
#include "network/network.h"
#include "pipe/status.h"
#include "portal/pairing.h"
#include "power/power_commands.h"
#include "proxy/proxy.h"
#include "text/secret.h"
#include "text/text.h"
#include "timesync/time_sync.h"
#include "updates/presence.h"
#include "updates/update_commands.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace kiosk::pipe {
namespace {

using json::PostReplyAction;

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
  json::Value (*handle)(const Client& client, const json::Value& request, PostReplyAction& afterReply);
};

json::Value Status(const Client& client, const json::Value& /*request*/, PostReplyAction& /*afterReply*/) {
  return StatusReport(client.pipe);
}

json::Value RestartNow(const Client& /*client*/, const json::Value& /*request*/, PostReplyAction& afterReply) {
  if (!account::KioskRestartPending()) {
    return json::ErrorReply("not_pending");
  }
  afterReply = [] { account::RestartNow("restart.now"); };
  return json::OkReply();
}

json::Value PairBegin(const Client& /*client*/, const json::Value& /*request*/, PostReplyAction& /*afterReply*/) {
  return portal::PairBegin();
}

json::Value PairCheck(const Client& /*client*/, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return portal::PairCheck(std::string(text::TrimSpace(json::Member(request, "code").text())));
}

json::Value Unlock(const Client& client, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return account::Unlock(json::Member(request, "password").text(), client.caller.sessionId);
}

json::Value Maintenance(const Client& client, const json::Value& request, PostReplyAction& afterReply) {
  return account::EnterMaintenance(json::Member(request, "password").text(),
                                   json::Member(request, "unlockToken").text(), client.caller.sessionId, afterReply);
}

json::Value PowerGet(const Client& /*client*/, const json::Value& /*request*/, PostReplyAction& /*afterReply*/) {
  return power::HandlePowerGet();
}

json::Value PowerSet(const Client& /*client*/, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return power::HandlePowerSet(request);
}

json::Value SessionReport(const Client& client, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return updates::SessionReport(request, client.caller.sessionId);
}

json::Value OsUpdates(const Client& /*client*/, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return updates::OsUpdates(request);
}

json::Value OsInstall(const Client& /*client*/, const json::Value& /*request*/, PostReplyAction& /*afterReply*/) {
  return updates::OsInstall();
}

json::Value NetSet(const Client& /*client*/, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return network::NetSet(request);
}

json::Value ProxySet(const Client& /*client*/, const json::Value& request, PostReplyAction& /*afterReply*/) {
  return proxy::ProxySet(request);
}

json::Value TimeSync(const Client& /*client*/, const json::Value& /*request*/, PostReplyAction& /*afterReply*/) {
  return timesync::TimeSync();
}

constexpr Command kCommands[] = {
    {"status", kAnyCaller, Settings::kMayBeLocked, Status},
    {"restart.now", kInteractiveUser, Settings::kMayBeLocked, RestartNow},
    {"pair.begin", kInteractivePerson, Settings::kMayBeLocked, PairBegin},
    {"pair.check", kInteractivePerson, Settings::kMayBeLocked, PairCheck},
    {"unlock", kKioskSession, Settings::kMayBeLocked, Unlock},
    {"session.report", kKioskSession, Settings::kMayBeLocked, SessionReport},
    {"maintenance", kKioskSession, Settings::kMayBeLocked, Maintenance},
    {"net.set", kKioskSession, Settings::kUnlocked, NetSet},
    {"time.sync", kKioskSession, Settings::kUnlocked, TimeSync},
    {"power.get", kKioskSession, Settings::kUnlocked, PowerGet},
    {"power.set", kKioskSession, Settings::kUnlocked, PowerSet},
    {"proxy.set", kKioskSession, Settings::kUnlocked, ProxySet},
    {"os.updates", kKioskSession, Settings::kUnlocked, OsUpdates},
    {"os.install", kKioskSession, Settings::kUnlocked, OsInstall},
};

}  // namespace

json::Value Dispatch(const Client& client, std::string_view request, PostReplyAction& afterReply) {
  json::Value body = json::Parse(request).value_or(json::Value());
  const text::WipeOnExit wipe(body);  // it may hold a password
  if (!body.IsObject()) {
    return json::ErrorReply("bad_request");
  }
  // A name of another type reads as the empty name.
  const std::string& name = json::Member(body, "cmd").text();
  const Command* command = std::find_if(std::begin(kCommands), std::end(kCommands),
                                        [&name](const Command& each) { return each.name == name; });
  if (command == std::end(kCommands)) {
    return json::ErrorReply("unknown_command");
  }
  if (!command->needs.admits(client.caller)) {
    if (command->needs.refusal != nullptr) {
      log::Log(log::kWarn, log::kKiosk, "%s refused: %s", name.c_str(), command->needs.refusal);
    }
    return json::ErrorReply("not_permitted");
  }
  if (command->settings == Settings::kUnlocked &&
      !account::CheckUnlockToken(json::Member(body, "unlockToken").text(), client.caller.sessionId)) {
    log::Log(log::kWarn, log::kKiosk, "%s refused: terminal settings are not unlocked for session %lu", name.c_str(),
             client.caller.sessionId);
    return json::ErrorReply("not_unlocked");
  }
  return command->handle(client, body, afterReply);
}

}  // namespace kiosk::pipe
