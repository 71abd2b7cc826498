#include "proxy/proxy.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "log/log.h"
#include "proxy/proxy_settings.h"
#include "state/kiosk_state.h"
#include "win32/handle.h"
#include "win32/lock.h"
#include "win32/wide_text.h"

#include <winhttp.h>

#include <algorithm>
#include <optional>
#include <string>

namespace kiosk::proxy {
namespace {

// Held from reading the setting to writing it. Connection threads and teardown come here.
win32::Lock proxyLock{win32::LockRank::kLeaf};

struct GlobalTextTraits {
  using Value = wchar_t*;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { GlobalFree(value); }
};
using GlobalText = win32::Owner<GlobalTextTraits>;

std::string TextOf(const GlobalText& text) { return text ? win32::ToNarrow(text.Get()) : std::string(); }

bool ReadProxy(Proxy& proxy) {
  WINHTTP_PROXY_INFO info{};
  if (!WinHttpGetDefaultProxyConfiguration(&info)) {
    log::Log(log::kError, log::kKiosk, "proxy: cannot read the default proxy (%lu)", GetLastError());
    return false;
  }
  const GlobalText server(info.lpszProxy);
  const GlobalText bypass(info.lpszProxyBypass);
  proxy = info.dwAccessType == WINHTTP_ACCESS_TYPE_NAMED_PROXY ? Proxy{TextOf(server), TextOf(bypass)} : Proxy{};
  return true;
}

// Writes the setting and makes sure that it reads so.
bool WriteProxy(const Proxy& proxy) {
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
  Proxy now;
  if (!ReadProxy(now)) {
    return false;
  }
  if (now != proxy) {
    log::Log(log::kError, log::kKiosk, "proxy: the default proxy does not read as it was set");
  }
  return now == proxy;
}

json::Value Recorded(const state::StateValue& value) {
  return json::ParseStored(win32::ToNarrow(state::ReadStateString(value))).value_or(json::Value());
}

bool Record(const state::StateValue& value, const json::Value& content) {
  return state::WriteStateString(value, win32::ToWide(json::Serialise(content)));
}

// Whether the setting is one that the service made.
bool IsOurs(const Proxy& proxy) {
  const json::Value applied = Recorded(state::kAppliedProxy);
  return std::any_of(applied.items().begin(), applied.items().end(),
                     [&](const json::Value& each) { return FromJson(each) == proxy; });
}

void ForgetPrior() {
  // In this order: with the copy gone the other says nothing.
  state::DeleteStateValue(state::kPriorProxy);
  state::DeleteStateValue(state::kAppliedProxy);
  state::FlushStateKey();
}

// Notes durably what is about to be replaced, and what by. Until the change is made either of the two settings is ours.
bool SavePrior(const Proxy& now, const Proxy& wanted) {
  json::Value applied = json::Value::Array();
  if (IsOurs(now) && FromJson(Recorded(state::kPriorProxy))) {
    applied.Append(ToJson(now));
  } else if (!Record(state::kPriorProxy, ToJson(now))) {
    return false;
  }
  applied.Append(ToJson(wanted));
  return Record(state::kAppliedProxy, applied) && state::FlushStateKey();
}

// The caller holds the lock.
bool Apply(const Proxy& wanted) {
  Proxy now;
  if (!ReadProxy(now)) {
    return false;
  }
  if (now == wanted) {
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
  if (!WriteProxy(wanted)) {
    WriteProxy(now);
    return false;
  }
  if (FromJson(Recorded(state::kPriorProxy)) == wanted) {
    ForgetPrior();
  } else {
    json::Value applied = json::Value::Array();
    applied.Append(ToJson(wanted));
    Record(state::kAppliedProxy, applied);
  }
  return true;
}

}  // namespace

json::Value ProxySet(const json::Value& request) {
  const Request parsed = ParseRequest(request);
  if (parsed.invalid != nullptr) {
    log::Log(log::kWarn, log::kKiosk, "proxy.set refused: invalid %s", parsed.invalid);
    return json::ErrorReply("invalid");
  }
  const win32::LockGuard guard(proxyLock);
  if (!Apply(parsed.proxy)) {
    return json::ErrorReply("failed");
  }
  log::Log(log::kNotice, log::kKiosk, "proxy: mode %s, %s", parsed.mode.c_str(),
           parsed.proxy.server.empty() ? "direct access" : parsed.proxy.server.c_str());
  json::Value reply = json::OkReply();
  reply.Set("mode", parsed.mode);
  if (parsed.mode == "manual") {
    reply.Set("server", parsed.proxy.server).Set("bypass", parsed.proxy.bypass);
  } else if (parsed.mode == "auto") {
    reply.Set("pacUrl", parsed.pacUrl);
  }
  return reply;
}

void RestoreProxy() {
  const win32::LockGuard guard(proxyLock);
  const std::optional<Proxy> prior = FromJson(Recorded(state::kPriorProxy));
  Proxy now;
  if (!prior) {
    if (state::ReadState(state::kAppliedProxy)) {
      ForgetPrior();  // half of it was forgotten before
    }
    return;
  }
  if (!ReadProxy(now)) {
    return;
  }
  if (now != *prior && !IsOurs(now)) {
    log::Log(log::kNotice, log::kKiosk, "proxy: somebody else has set another default proxy; left alone");
  } else if (now != *prior) {
    if (!WriteProxy(*prior)) {
      return;
    }
    log::Log(log::kNotice, log::kKiosk, "proxy: the computer's own default proxy is back");
  }
  ForgetPrior();
}

}  // namespace kiosk::proxy
