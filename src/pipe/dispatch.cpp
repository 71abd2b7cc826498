#include "pipe/dispatch.h"

#include "json/parse.h"
#include "json/reply.h"
#include "log/log.h"
#include "pipe/status.h"
#include "portal/pairing.h"
#include "text/secret.h"
#include "text/text.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace kiosk::pipe {
namespace {

// A kind of caller, and what the log says of one who is of another kind.
struct CallerClass {
  bool (*admits)(const CallerRecord& caller);
  const char* refusal;
};

constexpr CallerClass kAnyCaller{[](const CallerRecord& /*caller*/) { return true; }, ""};
constexpr CallerClass kInteractivePerson{
    [](const CallerRecord& caller) { return caller.isInteractive && !caller.isSystem && !caller.isKioskAccount; },
    "the caller is not an interactive user other than the kiosk account"};

struct Command {
  std::string_view name;
  const CallerClass& needs;
  json::Value (*handle)(const Client& client, const json::Value& request);
};

json::Value Status(const Client& client, const json::Value& /*request*/) { return StatusReport(client.pipe); }

json::Value PairBegin(const Client& /*client*/, const json::Value& /*request*/) { return portal::PairBegin(); }

json::Value PairCheck(const Client& /*client*/, const json::Value& request) {
  return portal::PairCheck(std::string(text::TrimSpace(json::Member(request, "code").text())));
}

constexpr Command kCommands[] = {
    {"status", kAnyCaller, Status},
    {"pair.begin", kInteractivePerson, PairBegin},
    {"pair.check", kInteractivePerson, PairCheck},
};

}  // namespace

json::Value Dispatch(const Client& client, std::string_view request) {
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
    log::Log(log::kWarn, log::kKiosk, "%s refused: %s", name.c_str(), command->needs.refusal);
    return json::ErrorReply("not_permitted");
  }
  return command->handle(client, body);
}

}  // namespace kiosk::pipe
