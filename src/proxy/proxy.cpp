#include "proxy/proxy.h"

#include "command/reply.h"
#include "log/log.h"
#include "proxy/proxy_settings.h"
#include "state/kiosk_state.h"
#include "state/stored_json.h"
#include "win32/lock.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <winhttp.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace kiosk::proxy {
namespace {

// Held from reading the setting to writing it. Connection threads, teardown and the worker come here.
win32::Lock proxyLock{win32::LockRank::kLeaf};

// Where WinHTTP keeps its default proxy. Its functions know only a named one; "netsh winhttp set advproxy" can also set
// a script, or that one is looked for, and the functions read that as direct access.
constexpr wchar_t kConnectionsKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
constexpr wchar_t kSettingsValue[] = L"WinHttpSettings";
constexpr std::size_t kFlagsAt = 8;  // in its bytes
constexpr std::uint8_t kScriptFlags = 0x4 | 0x8;

struct Setting {
  Proxy proxy;
  std::optional<state::RawValue> kept;  // none: Windows' own default, which is direct access

  [[nodiscard]] bool HasScript() const {
    return kept && kept->bytes.size() > kFlagsAt && (kept->bytes[kFlagsAt] & kScriptFlags) != 0;
  }
};

bool SameBytes(const std::optional<state::RawValue>& left, const std::optional<state::RawValue>& right) {
  return left.has_value() == right.has_value() && (!left || (left->type == right->type && left->bytes == right->bytes));
}

std::string TextOf(const win32::GlobalText& text) { return text ? win32::ToNarrow(text.Get()) : std::string(); }

bool ReadSetting(Setting& setting) {
  WINHTTP_PROXY_INFO info{};
  if (!WinHttpGetDefaultProxyConfiguration(&info)) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot read the default proxy (%lu)", GetLastError());
    return false;
  }
  const win32::GlobalText server(info.lpszProxy);
  const win32::GlobalText bypass(info.lpszProxyBypass);
  setting.proxy =
      info.dwAccessType == WINHTTP_ACCESS_TYPE_NAMED_PROXY ? Proxy{TextOf(server), TextOf(bypass)} : Proxy{};
  state::RawValue raw;
  const LSTATUS error = state::ReadValue(kConnectionsKey, kSettingsValue, raw);
  if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot read the default proxy's value (%ld)", error);
    return false;
  }
  setting.kept = error == ERROR_SUCCESS ? std::optional(std::move(raw)) : std::nullopt;
  return true;
}

// Writes the bytes back, and makes sure that they read so.
bool WriteBytes(const std::optional<state::RawValue>& bytes) {
  if (bytes) {
    state::WriteValue(kConnectionsKey, kSettingsValue, *bytes);
  } else {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kConnectionsKey, kSettingsValue);
  }
  Setting now;
  const bool done = ReadSetting(now) && SameBytes(now.kept, bytes);
  if (!done) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot put the default proxy back");
  }
  return done;
}

// Writes the setting, without a script, and makes sure that it reads so. `now` is what it was, and is read anew.
bool WriteProxy(const Proxy& proxy, Setting& now) {
  if (now.HasScript() && !WriteBytes(std::nullopt)) {
    return false;
  }
  std::wstring server = win32::ToWide(proxy.server);
  std::wstring bypass = win32::ToWide(proxy.bypass);
  WINHTTP_PROXY_INFO info{};
  info.dwAccessType = server.empty() ? WINHTTP_ACCESS_TYPE_NO_PROXY : WINHTTP_ACCESS_TYPE_NAMED_PROXY;
  info.lpszProxy = server.empty() ? nullptr : server.data();
  info.lpszProxyBypass = server.empty() || bypass.empty() ? nullptr : bypass.data();
  if (!WinHttpSetDefaultProxyConfiguration(&info)) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot set the default proxy (%lu)", GetLastError());
    return false;
  }
  if (!ReadSetting(now)) {
    return false;
  }
  const bool done = now.proxy == proxy && !now.HasScript();
  if (!done) {
    log::Log(log::kError, log::kKiosk, "proxy: the default proxy does not read as it was set");
  }
  return done;
}

// The computer's own setting, of which an older version of the service kept the proxy alone.
struct Prior {
  std::optional<state::RawValue> kept;
  std::optional<Proxy> proxy;
};

// What the state key holds of it.
struct Noted {
  std::optional<Prior> prior;
  json::Value applied;  // the settings that the service made

  [[nodiscard]] bool IsOurs(const Setting& setting) const {
    return !setting.HasScript() &&
           std::any_of(applied.items().begin(), applied.items().end(),
                       [&](const json::Value& each) { return FromJson(each) == setting.proxy; });
  }
};

// False, and logged, when nobody can tell now.
bool ReadNoted(Noted& noted) {
  state::RawValue copy;
  const LSTATUS status = state::ReadState(state::kPriorWinHttpSettings, copy);
  json::Value older;
  if ((status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) || !state::LoadJson(state::kPriorProxy, older) ||
      !state::LoadJson(state::kAppliedProxy, noted.applied)) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot read what is noted of the computer's own proxy");
    return false;
  }
  noted.prior.reset();
  if (status == ERROR_SUCCESS) {
    const bool none = copy.type == REG_NONE && copy.bytes.empty();
    noted.prior.emplace(Prior{none ? std::nullopt : std::optional(std::move(copy)), std::nullopt});
  } else if (std::optional<Proxy> proxy = FromJson(older)) {
    noted.prior.emplace(Prior{std::nullopt, std::move(proxy)});
  }
  return true;
}

bool IsPrior(const Setting& now, const Prior& prior) {
  return prior.proxy ? now.proxy == *prior.proxy : SameBytes(now.kept, prior.kept);
}

bool CopyToState(const std::optional<state::RawValue>& kept) {
  return state::WriteState(state::kPriorWinHttpSettings, kept.value_or(state::RawValue{})) == ERROR_SUCCESS &&
         state::DeleteStateValue(state::kPriorProxy);
}

void ForgetPrior() {
  // In this order: the second overrules the first, and with both gone the third says nothing.
  state::DeleteStateValue(state::kPriorProxy);
  state::DeleteStateValue(state::kPriorWinHttpSettings);
  state::DeleteStateValue(state::kAppliedProxy);
  state::FlushStateKey();
}

// Notes durably what is about to be replaced, and what by. Until the change is made each of these settings is ours.
bool SavePrior(const Setting& now, const Proxy& wanted) {
  Noted noted;
  if (!ReadNoted(noted)) {
    return false;
  }
  json::Value applied = json::Value::Array();
  if (noted.IsOurs(now) && noted.prior) {
    applied.Append(ToJson(now.proxy));
  } else if (!CopyToState(now.kept)) {
    return false;
  }
  applied.Append(ToJson(wanted));
  if (now.HasScript()) {
    applied.Append(ToJson(Proxy{}));  // a script is taken away first
  }
  return state::StoreJson(state::kAppliedProxy, applied) && state::FlushStateKey();
}

bool Apply(const Proxy& wanted) REQUIRES(proxyLock) {
  Setting now;
  if (!ReadSetting(now)) {
    return false;
  }
  if (now.proxy == wanted && !now.HasScript()) {
    return true;
  }
  if (state::FlagIsOn(state::kTeardownPending)) {
    log::Log(log::kWarn, log::kKiosk, "proxy: kiosk mode is being removed; nothing was changed");
    return false;
  }
  if (!SavePrior(now, wanted)) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot save the computer's own proxy; nothing was changed");
    return false;
  }
  const std::optional<state::RawValue> before = now.kept;
  if (!WriteProxy(wanted, now)) {
    WriteBytes(before);
    return false;
  }
  if (Noted noted; ReadNoted(noted) && noted.prior && IsPrior(now, *noted.prior)) {
    ForgetPrior();
  } else {
    json::Value applied = json::Value::Array();
    applied.Append(ToJson(wanted));
    state::StoreJson(state::kAppliedProxy, applied);
  }
  return true;
}

// False, and logged, when that failed.
bool GiveBack() REQUIRES(proxyLock) {
  Noted noted;
  if (!ReadNoted(noted)) {
    return false;
  }
  const std::optional<Prior>& prior = noted.prior;
  if (!prior) {
    if (state::ReadState(state::kAppliedProxy)) {
      ForgetPrior();  // half of it was forgotten before
    }
    return true;
  }
  Setting now;
  if (!ReadSetting(now)) {
    return false;
  }
  if (!IsPrior(now, *prior) && !noted.IsOurs(now)) {
    log::Log(log::kNotice, log::kKiosk, "proxy: somebody else has set another default proxy; left alone");
  } else if (!IsPrior(now, *prior)) {
    if (!(prior->proxy ? WriteProxy(*prior->proxy, now) : WriteBytes(prior->kept))) {
      return false;
    }
    log::Log(log::kNotice, log::kKiosk, "proxy: the computer's own default proxy is back");
  }
  ForgetPrior();
  return true;
}

}  // namespace

json::Value ProxySet(const command::Request& request) {
  const ProxySetRequest parsed = ParseProxySet(request.members);
  if (parsed.invalid != nullptr) {
    log::Log(log::kWarn, log::kKiosk, "proxy.set refused: invalid %s", parsed.invalid);
    return command::ErrorReply("invalid");
  }
  const win32::LockGuard guard(proxyLock);
  if (!Apply(parsed.proxy)) {
    return command::ErrorReply("failed");
  }
  log::Log(log::kNotice, log::kKiosk, "proxy: mode %s, %s", parsed.mode.c_str(),
           parsed.proxy.server.empty() ? "direct access" : parsed.proxy.server.c_str());
  json::Value reply = command::OkReply();
  reply.Set("mode", parsed.mode);
  if (parsed.mode == "manual") {
    reply.Set("server", parsed.proxy.server).Set("bypass", parsed.proxy.bypass);
  } else if (parsed.mode == "auto") {
    reply.Set("pacUrl", parsed.pacUrl);
  }
  return reply;
}

bool RestoreProxy() {
  const win32::LockGuard guard(proxyLock);
  bool back = GiveBack();
  if (!back) {
    back = GiveBack();
  }
  return back;
}

}  // namespace kiosk::proxy
