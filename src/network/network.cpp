#include "network/network.h"

#include "command/reply.h"
#include "log/log.h"
#include "network/adapters.h"
#include "network/change.h"
#include "network/change_record.h"
#include "network/trial.h"
#include "network/turn.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"
#include "win32/worker_wake.h"

#include <algorithm>
#include <atomic>

namespace kiosk::network {
namespace {

constexpr std::uint64_t kTurnWait = 60'000;
constexpr std::uint64_t kEndWait = 1'000;  // for a moment's look at the record; a change takes longer

// Whether the log has been told that, and why, a change cannot be undone yet. Only whoever has the turn comes here.
std::atomic<bool> complained{false};

json::Value Applied(const Adapter& adapter) {
  const Settings& shown = adapter.settings.dhcp ? adapter.inUse : adapter.settings;
  json::Value reply = command::OkReply();
  reply.Set("adapter", win32::ToNarrow(adapter.name)).Set("mode", shown.dhcp ? "dhcp" : "static");
  if (!shown.addresses.empty()) {
    reply.Set("address", AddressText(shown.addresses.front().address));
    reply.Set("prefixLength", shown.addresses.front().prefixLength);
  }
  if (!shown.gateways.empty()) {
    reply.Set("gateway", AddressText(shown.gateways.front()));
  }
  reply.Set("dns", ToJson(shown.dns));
  return reply;
}

// A token that cannot be read now may be there: no trial ends for that.
bool MayBeEnrolled() {
  const state::ReadWatch reads;
  return state::TokenIsStored() || !reads.AllKnown();
}

// The wanted settings are in force: deletes the record, or begins the trial. False when the record could not be changed
// and would bring back the settings from before.
bool Conclude(ChangeRecord& record, bool keep) {
  const bool nothingToProve = keep || Same(*record.wanted, record.before) || !MayBeEnrolled();
  if (nothingToProve) {
    return ForgetChange(record.adapter);
  }
  record.unproven = true;
  if (!NoteChange(record)) {
    record.unproven = false;
    return false;
  }
  BeginTrial(record.adapter);
  return true;
}

json::Value Set(Adapter& adapter, const NetSetRequest& request) {
  const std::string name = win32::ToNarrow(adapter.name);
  std::vector<ChangeRecord> records;
  if (!ReadChangeRecords(records)) {
    log::Log(log::kError, log::kKiosk, "net.set: cannot read what is noted of %s; nothing was changed", name.c_str());
    return command::ErrorReply("failed");
  }
  const auto older =
      std::find_if(records.begin(), records.end(), [&](const ChangeRecord& each) { return each.adapter == name; });
  const bool hasOlder = older != records.end();
  ChangeRecord record{name, hasOlder ? older->before : adapter.settings, adapter.settings, request.settings};
  const bool done = IsDone(adapter, request.settings);
  if (done && !hasOlder) {
    return Applied(adapter);
  }
  if (!done && !adapter.linkUp) {
    log::Log(log::kWarn, log::kKiosk, "net.set refused: %s has no link", name.c_str());
    return command::ErrorReply("failed");
  }
  if (!done && !NoteChange(record)) {
    log::Log(log::kError, log::kKiosk, "net.set: cannot save the settings of %s; nothing was changed", name.c_str());
    return command::ErrorReply("failed");
  }
  if ((!done && !MakeChange(adapter, request.settings)) || !Conclude(record, request.keep)) {
    if (PutBack(record, true, true) != PutBackResult::kOver) {
      log::Log(log::kError, log::kKiosk, "net.set: %s is not as it was before; trying again until it is", name.c_str());
      win32::WakeWorker();
    }
    return command::ErrorReply("failed");
  }
  log::Log(log::kNotice, log::kKiosk, "net.set: %s set to %s", name.c_str(), Describe(request.settings).c_str());
  return Applied(adapter);
}

// The change is half done, or its trial is over. In the second case it is recorded as half done from now on.
bool IsToBeUndone(ChangeRecord& record) {
  if (!record.unproven) {
    return true;
  }
  Adapter adapter;
  const bool linkUp = ReadAdapter(win32::ToWide(record.adapter), adapter) == ERROR_SUCCESS && adapter.linkUp;
  if (!TrialIsOver(record.adapter, linkUp)) {
    return false;
  }
  log::Log(log::kWarn, log::kKiosk,
           "net.set: no answer from the portal in 5 minutes since %s was set to %s; going back", record.adapter.c_str(),
           Describe(*record.wanted).c_str());
  // An answer that comes while it is half put back proves nothing.
  record.unproven = false;
  NoteChange(record);
  return true;
}

PutBackResult Undo(const ChangeRecord& record) {
  const PutBackResult result = PutBack(record, false, !complained);
  if (result == PutBackResult::kOver) {
    complained = false;
  } else if (!complained.exchange(true)) {
    log::Log(log::kError, log::kKiosk, "net.set: an unfinished change of %s cannot be undone yet; trying on",
             record.adapter.c_str());
  }
  return result;
}

// For whoever has the turn; false when they cannot be read now. Where somebody damaged the value there is none in it,
// and it goes here or never.
bool AllRecords(std::vector<ChangeRecord>& records) {
  const bool known = ReadChangeRecords(records);
  if (known && records.empty()) {
    ForgetChange({});
  }
  return known;
}

}  // namespace

json::Value NetSet(const command::Request& request) {
  const NetSetRequest parsed = ParseNetSet(request.members);
  if (parsed.invalid != nullptr) {
    log::Log(log::kWarn, log::kKiosk, "net.set refused: invalid %s", parsed.invalid);
    return command::ErrorReply("invalid");
  }
  const Turn turn(kTurnWait);
  if (!turn) {
    log::Log(log::kError, log::kKiosk, "net.set: another change is still under way");
    return command::ErrorReply("failed");
  }
  Adapter adapter;
  const DWORD error = ReadAdapter(win32::ToWide(parsed.adapter), adapter);
  if (error == ERROR_NOT_FOUND) {
    log::Log(log::kWarn, log::kKiosk, "net.set refused: no wired or Wi-Fi adapter %s", parsed.adapter.c_str());
    return command::ErrorReply("unknown_adapter");
  }
  if (error != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "net.set: cannot read the adapters (%lu)", error);
    return command::ErrorReply("failed");
  }
  return Set(adapter, parsed);
}

bool SettleChanges() {
  if (!HasChangeRecords()) {
    return true;
  }
  const Turn turn(0);
  if (!turn) {
    return false;
  }
  const bool enrolled = MayBeEnrolled();
  std::vector<ChangeRecord> records;
  bool all = AllRecords(records);
  for (ChangeRecord& record : records) {
    // Without an enrolment there is no portal that could prove it. A teardown beside the change leaves such a record.
    const bool settled = record.unproven && !enrolled ? ForgetChange(record.adapter)
                                                      : IsToBeUndone(record) && Undo(record) == PutBackResult::kOver;
    all = all && settled;
  }
  return all;
}

bool EndChanges() {
  if (!HasChangeRecords()) {
    return true;
  }
  const Turn turn(kEndWait);
  if (!turn) {
    return false;
  }
  std::vector<ChangeRecord> records;
  bool all = AllRecords(records);
  for (const ChangeRecord& record : records) {
    const bool over = record.unproven ? ForgetChange(record.adapter) : Undo(record) != PutBackResult::kNotNow;
    all = all && over;
  }
  return all;
}

}  // namespace kiosk::network
