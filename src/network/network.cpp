#include "network/network.h"

#include "log/log.h"
#include "network/adapter_configuration.h"
#include "network/adapters.h"
#include "network/prior_settings.h"
#include "portal/worker_wake.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <atomic>

namespace kiosk::network {
namespace {

constexpr std::uint64_t kShowWait = 10'000;
constexpr DWORD kShowPoll = 250;
constexpr std::uint64_t kTurnWait = 60'000;
constexpr DWORD kTurnPoll = 100;

// Whether a change is under way, and whether the log has been told of one that cannot be undone yet. Connection threads
// and the worker come here.
std::atomic<bool> changing{false};
std::atomic<bool> complained{false};

// One change at a time. A lock would not hear the stop.
class Turn {
 public:
  explicit Turn(std::uint64_t wait) {
    const win32::Deadline deadline(wait);
    while (!(mine_ = !changing.exchange(true))) {
      if (deadline.Passed() || win32::WaitOrStop(nullptr, kTurnPoll) == win32::WaitResult::kStop) {
        return;
      }
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (mine_) {
      changing = false;
    }
  }
  explicit operator bool() const noexcept { return mine_; }

 private:
  bool mine_ = false;
};

std::vector<Address> Sorted(std::vector<Address> addresses) {
  std::sort(addresses.begin(), addresses.end());
  return addresses;
}

// Windows keeps the order of name servers alone.
bool Same(const Settings& left, const Settings& right) {
  return left.dhcp == right.dhcp && left.dns == right.dns && Sorted(left.gateways) == Sorted(right.gateways) &&
         std::is_permutation(left.addresses.begin(), left.addresses.end(), right.addresses.begin(),
                             right.addresses.end());
}

bool IsDone(const Adapter& adapter, const Settings& wanted) {
  return adapter.settled && Same(adapter.settings, wanted);
}

// Reads the adapter until it is as wanted. An address that another computer turns out to have ends the wait.
bool Shows(Adapter& adapter, const Settings& wanted) {
  const std::wstring name = adapter.name;
  const win32::Deadline deadline(kShowWait);
  while (true) {
    const DWORD error = ReadAdapter(name, adapter);
    if (error == ERROR_SUCCESS && IsDone(adapter, wanted)) {
      return true;
    }
    const char* const why = error == ERROR_SUCCESS && adapter.duplicate ? "another computer has the address"
                            : deadline.Passed()                         ? "the settings do not show"
                                                                        : nullptr;
    if (why != nullptr) {
      log::Log(log::kError, log::kKiosk, "net.set: %s on %s", why, win32::ToNarrow(name).c_str());
      return false;
    }
    if (win32::WaitOrStop(nullptr, kShowPoll) == win32::WaitResult::kStop) {
      return false;
    }
  }
}

std::string Describe(const Settings& settings) {
  std::string text = settings.dhcp ? "DHCP" : "static";
  for (const OwnAddress& each : settings.addresses) {
    text += " " + AddressText(each.address) + "/" + std::to_string(each.prefixLength);
  }
  for (const Address gateway : settings.gateways) {
    text += ", gateway " + AddressText(gateway);
  }
  for (const Address server : settings.dns) {
    text += ", DNS " + AddressText(server);
  }
  return text;
}

json::Value Applied(const Adapter& adapter) {
  const Settings& shown = adapter.settings.dhcp ? adapter.inUse : adapter.settings;
  json::Value dns = json::Value::Array();
  for (const Address server : shown.dns) {
    dns.Append(AddressText(server));
  }
  json::Value reply = json::OkReply();
  reply.Set("adapter", win32::ToNarrow(adapter.name)).Set("mode", shown.dhcp ? "dhcp" : "static");
  if (!shown.addresses.empty()) {
    reply.Set("address", AddressText(shown.addresses.front().address));
    reply.Set("prefixLength", shown.addresses.front().prefixLength);
  }
  if (!shown.gateways.empty()) {
    reply.Set("gateway", AddressText(shown.gateways.front()));
  }
  reply.Set("dns", std::move(dns));
  return reply;
}

// False when that cannot be done now; the record then stays. The caller has its turn.
bool PutBack(const PriorSettings& prior) {
  const std::string name = win32::ToNarrow(prior.adapter);
  Adapter adapter;
  if (win32::StopRequested() || ReadAdapter(prior.adapter, adapter) != ERROR_SUCCESS) {
    return false;
  }
  // A fixed address without an address is nothing that could be set.
  if (Same(adapter.settings, prior.settings) || (!prior.settings.dhcp && prior.settings.addresses.empty())) {
    ForgetPriorSettings(prior.adapter);
    log::Log(log::kNotice, log::kKiosk, "net.set: left %s as it is: %s", name.c_str(),
             Describe(adapter.settings).c_str());
    return true;
  }
  const win32::ComApartment apartment;
  AdapterConfiguration configuration(adapter.name);
  // What counts is what then shows: a step may refuse what is so already.
  const bool back =
      configuration.Open() &&
      (configuration.Apply(prior.settings, !adapter.settings.gateways.empty(), true), Shows(adapter, prior.settings));
  if (back) {
    ForgetPriorSettings(prior.adapter);
    log::Log(log::kWarn, log::kKiosk, "net.set: put %s back to what it was before: %s", name.c_str(),
             Describe(prior.settings).c_str());
  }
  return back;
}

// False when the adapter is not as wanted; the record is there then.
bool Change(Adapter& adapter, const Settings& wanted) {
  const win32::ComApartment apartment;
  AdapterConfiguration configuration(adapter.name);
  const bool dropGateways = !adapter.settings.gateways.empty();
  return configuration.Open() && configuration.Apply(wanted, dropGateways, false) && Shows(adapter, wanted);
}

json::Value Set(Adapter& adapter, const Settings& wanted) {
  if (!IsDone(adapter, wanted)) {
    const std::string name = win32::ToNarrow(adapter.name);
    const std::optional<PriorSettings> prior = NotePriorSettings({adapter.name, adapter.settings});
    if (!prior) {
      log::Log(log::kError, log::kKiosk, "net.set: cannot save the settings of %s; nothing was changed", name.c_str());
      return json::ErrorReply("failed");
    }
    // With the record still there, the settings from before would come back later.
    if (!Change(adapter, wanted) || !ForgetPriorSettings(adapter.name)) {
      if (!PutBack(*prior)) {
        log::Log(log::kError, log::kKiosk, "net.set: %s is not as it was before; trying again until it is",
                 name.c_str());
        portal::WakeWorker();
      }
      return json::ErrorReply("failed");
    }
    log::Log(log::kNotice, log::kKiosk, "net.set: %s set to %s", name.c_str(), Describe(wanted).c_str());
  } else {
    ForgetPriorSettings(adapter.name);
  }
  return Applied(adapter);
}

}  // namespace

json::Value NetSet(const json::Value& request) {
  const Request parsed = ParseRequest(request);
  if (parsed.invalid != nullptr) {
    log::Log(log::kWarn, log::kKiosk, "net.set refused: invalid %s", parsed.invalid);
    return json::ErrorReply("invalid");
  }
  const Turn turn(kTurnWait);
  if (!turn) {
    log::Log(log::kError, log::kKiosk, "net.set: another change is still under way");
    return json::ErrorReply("failed");
  }
  Adapter adapter;
  const DWORD error = ReadAdapter(win32::ToWide(parsed.adapter), adapter);
  if (error == ERROR_NOT_FOUND) {
    log::Log(log::kWarn, log::kKiosk, "net.set refused: no wired or Wi-Fi adapter %s", parsed.adapter.c_str());
    return json::ErrorReply("unknown_adapter");
  }
  if (error != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "net.set: cannot read the adapters (%lu)", error);
    return json::ErrorReply("failed");
  }
  return Set(adapter, parsed.settings);
}

bool PutBackUnfinishedChanges() {
  if (!HasPriorSettings()) {
    return true;
  }
  const Turn turn(0);
  if (!turn) {
    return false;
  }
  bool all = true;
  for (const PriorSettings& prior : ReadPriorSettings()) {
    const bool back = PutBack(prior);
    if (!back && !complained.exchange(true)) {
      log::Log(log::kError, log::kKiosk, "net.set: an unfinished change of %s cannot be undone yet; trying on",
               win32::ToNarrow(prior.adapter).c_str());
    }
    all = all && back;
  }
  return all;
}

}  // namespace kiosk::network
