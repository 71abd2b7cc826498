#include "log/shipper/remote.h"

#include "log/local_log.h"
#include "log/settings.h"
#include "log/shipper/ring.h"
#include "state/registry.h"
#include "win32/clock.h"
#include "win32/wide_text.h"

namespace kiosk::log::shipper {
namespace {

constexpr wchar_t kValue[] = L"RemoteConfig";
// 15 min, give or take 90 s, so that a fleet that was switched on together spreads.
constexpr std::uint64_t kInterval = 900'000;
constexpr std::uint64_t kSpread = 90'000;
constexpr std::uint64_t kAgain = 60'000;  // after a fetch without an answer

}  // namespace

// False when the endpoint turns out not to be one.
bool Remote::Use(const RemoteConfig& config) {
  const std::optional<win32::HttpTarget> target =
      config.endpoint.empty() ? settings_.endpoint : HttpsTarget(win32::ToWide(config.endpoint));
  if (!target) {
    return false;
  }
  config_ = config;
  target_ = *target;
  AcceptUpTo(config.enabled ? config.minLevel : -1);
  return true;
}

void Remote::LoadKept() {
  std::string fault;
  std::optional<RemoteConfig> kept;
  if (settings_.configUrl) {
    kept = ParseRemoteConfig(win32::ToNarrow(ReadSettingString(kValue).value_or(L"")), fault);
  }
  if (!kept || !Use(*kept)) {
    Use(RemoteConfig());
  }
}

// Always false: nothing changed.
bool Remote::Refuse(const std::string& fault) {
  if (fault != lastFault_) {
    lastFault_ = fault;
    LogLocal(kWarn, "central log: remote configuration is not used (%s)", fault.c_str());
  }
  return false;
}

bool Remote::FetchWhenDue(Endpoint& endpoint, const CERT_CONTEXT* certificate) {
  if (!settings_.configUrl || DueIn() != 0) {
    return false;
  }
  const std::optional<std::string> text = endpoint.Get(*settings_.configUrl, certificate, kMaxConfig);
  due_ = win32::TickCount() + (text ? kInterval - kSpread + RandomUpTo(2 * kSpread) : kAgain + RandomUpTo(kAgain));
  if (!text) {
    return false;
  }
  std::string fault;
  const std::optional<RemoteConfig> config = ParseRemoteConfig(*text, fault);
  if (!config) {
    return Refuse(fault);
  }
  const std::string wanted = RemoteConfigText(*config);
  const bool changed = wanted != RemoteConfigText(config_);
  if (changed) {
    if (!Use(*config)) {
      return Refuse("\"endpoint\" is no https URL");
    }
    LogLocal(kNotice, "central log: remote configuration %s", wanted.c_str());
  }
  lastFault_.clear();
  const std::wstring wide = win32::ToWide(wanted);
  if (ReadSettingString(kValue).value_or(L"") != wide) {
    state::WriteValue(HKEY_LOCAL_MACHINE, kSettingsKey, kValue, REG_SZ, wide.c_str(), state::StringBytes(wide));
  }
  return changed;
}

std::uint64_t Remote::DueIn() const noexcept {
  const std::uint64_t now = win32::TickCount();
  return !settings_.configUrl ? UINT64_MAX : due_ > now ? due_ - now : 0;
}

}  // namespace kiosk::log::shipper
