#include "log/shipper/remote.h"

#include "log/local_log.h"
#include "log/log_settings.h"
#include "log/shipper/ring.h"
#include "state/registry.h"
#include "win32/clock.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace kiosk::log::shipper {
namespace {

constexpr wchar_t kValue[] = L"RemoteConfig";
// 15 min, give or take 90 s, so that a fleet that was switched on together spreads.
constexpr std::uint64_t kInterval = 900'000;
constexpr std::uint64_t kSpread = 90'000;
constexpr std::uint64_t kAgain = 60'000;  // after a fetch without an answer
constexpr std::size_t kMostReasons = 16;  // a faulty one names the place in the text, so there may be any number

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
    kept = ParseRemoteConfig(win32::ToNarrow(state::ReadString(kSettingsKey, kValue).value_or(L"")), fault);
  }
  if (!kept || !Use(*kept)) {
    Use(RemoteConfig());
  }
}

// Always false: nothing changed.
bool Remote::Complain(const char* what, const std::string& reason) {
  if (told_.size() < kMostReasons && std::find(told_.begin(), told_.end(), reason) == told_.end()) {
    told_.push_back(reason);
    LogLocal(kWarn, "central log: remote configuration %s (%s)", what, reason.c_str());
  }
  return false;
}

bool Remote::FetchWhenDue(Endpoint& endpoint, const CERT_CONTEXT* certificate) {
  if (!settings_.configUrl || DueIn() != 0) {
    return false;
  }
  std::string text;
  const Outcome outcome = endpoint.Get(*settings_.configUrl, certificate, kMaxConfig, text);
  const bool reached = outcome.status == HTTP_STATUS_OK;
  due_ = win32::TickCount() + (reached ? kInterval - kSpread + RandomUpTo(2 * kSpread) : kAgain + RandomUpTo(kAgain));
  if (!reached) {
    return outcome.error != ERROR_WINHTTP_OPERATION_CANCELLED && Complain("cannot be fetched", outcome.Text());
  }
  std::string fault;
  const std::optional<RemoteConfig> config = ParseRemoteConfig(text, fault);
  if (!config) {
    return Complain("is not used", fault);
  }
  const std::string wanted = RemoteConfigText(*config);
  const bool changed = wanted != RemoteConfigText(config_);
  if (changed) {
    if (!Use(*config)) {
      return Complain("is not used", "\"endpoint\" is no https URL");
    }
    LogLocal(kNotice, "central log: remote configuration %s", wanted.c_str());
  }
  told_.clear();
  const std::wstring wide = win32::ToWide(wanted);
  if (state::ReadString(kSettingsKey, kValue) != wide) {
    state::WriteString(kSettingsKey, kValue, wide);
  }
  return changed;
}

std::uint64_t Remote::DueIn() const noexcept {
  const std::uint64_t now = win32::TickCount();
  return !settings_.configUrl ? UINT64_MAX : due_ > now ? due_ - now : 0;
}

}  // namespace kiosk::log::shipper
