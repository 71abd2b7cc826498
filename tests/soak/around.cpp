// What happens around a terminal: the portal, the disk, Windows and its updates, the network, strangers.
#include "sim/accounts.h"
#include "sim/lsa.h"
#include "sim/network.h"
#include "sim/power.h"
#include "sim/profiles.h"
#include "sim/sessions.h"
#include "sim/shutdown.h"
#include "sim/tasks.h"
#include "sim/windows_update.h"
#include "state/kiosk_state.h"
#include "tests/soak/life.h"
#include "tests/soak/portal.h"
#include "tests/soak/world.h"
#include "tests/support/terminal.h"

#include <iterator>

namespace kiosk::soak {
namespace {

// What is there instead of a device token, until Heal brings that back.
constexpr char kDamage[] = "no blob";

std::string StoredToken() {
  const auto stored = state::ReadState(state::kDeviceToken);
  return stored ? std::string(stored->bytes.begin(), stored->bytes.end()) : std::string();
}

void StoreToken(const std::string& blob) {
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, blob.data(), blob.size());
}

}  // namespace

// What of Windows can be out of order, one at a time or none.
void FailWindows(std::uint32_t number) {
  world.windowsFails = number != 0;
  world.secretsFailed = world.secretsFailed || number == 1;
  sim::lsaError.Set(number == 1 ? ERROR_ACCESS_DENIED : 0);
  sim::FailAccountLookups(number == 2 ? RPC_S_SERVER_UNAVAILABLE : 0);
  sim::sessionListError.Set(number == 3 ? RPC_S_SERVER_UNAVAILABLE : 0);
  sim::profilesBusy.Set(number == 4 ? INFINITE : 0);
  sim::FailTaskMethod(number == 5 ? L"Connect" : L"");
  sim::power.readError.Set(number == 6 ? ERROR_ACCESS_DENIED : 0);
  sim::agent.failSession.Set(number == 7 ? 0x80240438 : 0);
  sim::shutdownNotReady.Set(number == 8 ? 2 : 0);
  if (const DWORD session = sim::SessionOf(test::Kiosk().sid); number == 9 && session != 0) {
    sim::MakeStubborn(session, 20'000);
  }
}

// A catalogue of one more, and how long its stages take or fail.
void OfferUpdate(std::uint32_t number) {
  const auto bit = [number](int at) { return (number >> at & 1) != 0; };
  constexpr DWORD kFailure = 0x80240022;
  sim::OfferUpdate({.title = L"Update " + std::to_wstring(number),
                    .reboot = bit(0) ? 1U : 0U,
                    .asksPerson = bit(1) && bit(2),
                    .termsAccepted = !bit(3),
                    .exclusive = bit(4),
                    .feature = bit(5) && bit(0),
                    .downloadFailure = bit(6) && bit(7) ? kFailure : 0,
                    .failure = bit(8) && bit(9) ? kFailure : 0});
  constexpr DWORD kDurations[] = {0, 3'000, 600'000, 7'200'000};
  for (const sim::AgentStage stage : {sim::kSearch, sim::kDownload, sim::kInstall}) {
    sim::agent.duration[stage].Set(kDurations[number >> (10 + 2 * stage) & 3]);
  }
}

// Somebody with the rights of an administrator does what he should not, or the registry loses something.
void BeAStranger(std::uint32_t number) {
  constexpr const wchar_t* kLost[] = {
      L"SignIn",          L"PowerPolicy",         L"UpdatesPolicy",        L"PowerSource",
      L"OsUpdatesReport", L"OsUpdatesWindowDone", L"PowerScheduleApplied", L"TerminalName",
      L"PowerError",      L"MaintenanceAt",       L"UnknownSince",         L"MaintenanceFailures"};
  const sim::User kiosk = test::Kiosk();
  if (number == 0 && !kiosk.sid.empty()) {
    sim::RemoveUser(kiosk.name);
    world.namesake = false;
  } else if (number == 1 && !kiosk.sid.empty()) {
    sim::AddToGroup(test::kAdministrators, kiosk.sid);
  } else if (number == 2 && state::TokenIsStored() && StoredToken() != kDamage) {
    WriteNote(L"Token", StoredToken());
    StoreToken(kDamage);
  } else if (number == 3 && !state::ReadState(state::kAccountCreating)) {
    sim::RemoveUser(L"NorvaneKiosk");
    sim::AddUser(L"NorvaneKiosk", kNamesakesPassword);
    world.namesake = true;
  } else if (number >= 4 && test::HasValue(state::kStateKey, kLost[number % std::size(kLost)])) {
    test::SetString(state::kStateKey, kLost[number % std::size(kLost)], L"{\"no\":");
  }
}

void SetClient(bool there) { test::SetString(test::kUpdateKey, L"ClientInstallDir", there ? L"C:\\Client" : L""); }

void Heal() {
  world.troubleAt = world.served;
  world.outage = world.logOutage = kNone;
  world.disk = world.killIn = world.failIn = 0;
  world.stateKeyRefused = false;
  FailWindows(0);
  const sim::Adapter adapter(sim::kFactoryAdapter);
  adapter.cable.Set(1);
  if (adapter.dhcp.Get() == 0 && !adapter.addresses.Get().starts_with(L"192.168.7.")) {
    adapter.dhcp.Set(1);  // somebody comes and plugs it in where it belongs
    adapter.addresses.Set(L"192.168.7.20/24");
    sim::SetGatewaysByHand(sim::kFactoryAdapter, L"");
  }
  SetClient(true);
  if (StoredToken() == kDamage) {
    StoreToken(ReadNote(L"Token"));
  }
  if (world.namesake) {
    sim::RemoveUser(L"NorvaneKiosk");
    world.namesake = false;
  }
}

// One of the changes that come, in one of the ways in which Windows fails.
void FailOneChange(std::uint32_t number) {
  constexpr std::uint32_t kErrors[] = {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_NO_SYSTEM_RESOURCES,
                                       ERROR_SHARING_VIOLATION};
  world.failIn = 1 + number % 120;
  world.failError = kErrors[number / 120 % std::size(kErrors)];
}

}  // namespace kiosk::soak
