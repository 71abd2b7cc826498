#include "network/change.h"

#include "log/log.h"
#include "network/adapter_configuration.h"
#include "network/gateways.h"
#include "win32/clock.h"
#include "win32/com.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <vector>

namespace kiosk::network {
namespace {

constexpr std::uint64_t kShowWait = 10'000;
constexpr DWORD kShowPoll = 250;

// Reads the adapter until it is as wanted. An address that another computer turns out to have ends the wait.
bool Shows(Adapter& adapter, const Settings& wanted, bool tell) {
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
      if (tell) {
        log::Log(log::kError, log::kKiosk, "net.set: %s on %s", why, win32::ToNarrow(name).c_str());
      }
      return false;
    }
    if (win32::WaitOrStop(nullptr, kShowPoll) == win32::WaitResult::kStop) {
      return false;
    }
  }
}

// What shows in the end decides. With `insist` a step that fails ends nothing: it may have refused what is so already.
bool Make(Adapter& adapter, const Settings& wanted, bool insist, bool tell) {
  const win32::ComApartment apartment;
  AdapterConfiguration configuration(adapter.name, tell);
  const Settings now = adapter.settings;
  if (!configuration.Open() || (!configuration.Apply(now, wanted, insist) && !insist)) {
    return false;
  }
  if (wanted.dhcp) {
    // An adapter that was static has had its gateways cleared, and a route that is there by now may be the network's.
    const std::vector<Address> gone = now.dhcp ? now.gateways : std::vector<Address>();
    if (!SetGatewaysBesideDhcp(adapter.name, adapter.luid, gone, wanted.gateways, tell) && !insist) {
      return false;
    }
  }
  return Shows(adapter, wanted, tell);
}

}  // namespace

bool IsDone(const Adapter& adapter, const Settings& wanted) {
  return adapter.settled && Same(adapter.settings, wanted);
}

bool MakeChange(Adapter& adapter, const Settings& wanted) { return Make(adapter, wanted, false, true); }

PutBackResult PutBack(const ChangeRecord& record, bool evenIfStrange, bool tell) {
  Adapter adapter;
  const DWORD error = ReadAdapter(win32::ToWide(record.adapter), adapter);
  if (error == ERROR_NOT_FOUND) {
    return PutBackResult::kGone;
  }
  if (error != ERROR_SUCCESS || !adapter.linkUp) {
    return PutBackResult::kNotNow;
  }
  Settings before = record.before;
  if (!record.wanted && before.dhcp && adapter.settings.dhcp) {
    before.gateways = adapter.settings.gateways;  // older versions did not look at them
  }
  const bool strange =
      !evenIfStrange && record.wanted && !IsBetween(adapter.settings, {before, record.from, *record.wanted});
  // A static adapter without an address cannot be set.
  if (strange || Same(adapter.settings, before) || (!before.dhcp && before.addresses.empty())) {
    ForgetChange(record.adapter);
    log::Log(log::kNotice, log::kKiosk, "net.set: left %s as it is: %s", record.adapter.c_str(),
             Describe(adapter.settings).c_str());
    return PutBackResult::kOver;
  }
  if (win32::StopRequested() || !Make(adapter, before, true, tell)) {
    return PutBackResult::kNotNow;
  }
  ForgetChange(record.adapter);
  log::Log(log::kWarn, log::kKiosk, "net.set: put %s back to what it was before: %s", record.adapter.c_str(),
           Describe(before).c_str());
  return PutBackResult::kOver;
}

}  // namespace kiosk::network
