#include "updates/update_commands.h"

#include "command/reply.h"
#include "enrolment/device_token.h"
#include "log/log.h"
#include "updates/report.h"
#include "updates/stored_policy.h"
#include "updates/update_run.h"
#include "updates/update_state.h"
#include "win32/thread.h"

#include <exception>
#include <optional>
#include <string>
#include <utility>

namespace kiosk::updates {
namespace {

void RunAndRecord(bool install) noexcept {
  try {
    const text::Secret token = enrolment::ReadDeviceToken();
    const RunResult result = RunUpdates(install);
    if (result.code != RunCode::kStopped) {
      RecordRun(token.Get(), result);
    }
  } catch (const std::exception& problem) {
    log::Log(log::kError, log::kKiosk, "os updates: a run ended early (%s)", problem.what());
  }
}

// False when a run is going already, or could not be started. Otherwise one searches (and installs) on a thread of its
// own and records its result.
bool StartBackgroundRun(bool install) {
  std::optional<RunClaim> claim = RunClaim::Take();
  if (!claim) {
    return false;
  }
  LockedUpdateState()->checking = true;
  const win32::KernelHandle thread =
      win32::StartThread([held = std::move(*claim), install]() noexcept { RunAndRecord(install); });
  if (!thread) {
    log::Log(log::kError, log::kKiosk, "os updates: cannot start a run (%lu)", GetLastError());
  }
  return static_cast<bool>(thread);
}

void SetTextOrNull(json::Value& reply, const char* member, const std::string& text) {
  if (text.empty()) {
    reply.Set(member, json::Value());
  } else {
    reply.Set(member, text);
  }
}

json::Value UpdateList(const std::vector<PendingUpdate>& pending) {
  json::Value list = json::Value::Array();
  list.Reserve(pending.size());
  for (const PendingUpdate& update : pending) {
    json::Value entry = json::Value::Object();
    entry.Set("id", update.id);
    entry.Set("title", update.title);
    entry.Set("sizeBytes", update.sizeBytes);
    entry.Set("restartRequired", update.mayRestart);
    list.Append(std::move(entry));
  }
  return list;
}

json::Value StatusReply() {
  UpdatesPolicy policy;
  const bool known = LoadUpdatesPolicy(policy);
  json::Value reply = command::OkReply();
  {
    const LockedUpdateState state;
    reply.Set("checking", state->checking);
    reply.Set("installing", state->installing);
    reply.Set("progress", state->installing ? CurrentProgress() : 0);
    reply.Set("restartRequired", state->restartRequired);
    SetTextOrNull(reply, "lastChecked", state->lastChecked);
    SetTextOrNull(reply, "error", state->lastError);
    reply.Set("updates", UpdateList(state->pending));
  }
  if (known) {
    reply.Set("policy", UpdatesPolicyToJson(policy));
  }
  return reply;
}

}  // namespace

json::Value OsUpdates(const command::Request& request) {
  const json::Value& check = json::Member(request.members, "check");
  if (!check.IsNull() && !check.IsBool()) {
    return command::ErrorReply("invalid");
  }
  if (check.boolean() && StartBackgroundRun(false)) {
    log::Log(log::kNotice, log::kKiosk, "os updates: check requested at the terminal");
  }
  return StatusReply();
}

json::Value OsInstall(const command::Request& /*request*/) {
  if (!StartBackgroundRun(true)) {
    return command::ErrorReply("busy");
  }
  log::Log(log::kNotice, log::kKiosk, "os updates: install requested at the terminal");
  return StatusReply();
}

}  // namespace kiosk::updates
