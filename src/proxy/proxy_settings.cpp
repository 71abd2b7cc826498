#include "proxy/proxy_settings.h"

#include "network/address.h"

#include <algorithm>
#include <string_view>

namespace kiosk::proxy {
namespace {

constexpr std::size_t kLongestBypass = 2048;
constexpr std::size_t kLongestUrl = 2083;
constexpr std::size_t kLongestHost = 253;
constexpr std::size_t kLongestLabel = 63;
constexpr char kDigits[] = "0123456789";
constexpr char kHostLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";

bool IsVisible(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7F && c != '"'; });
}

// Everything up to `end`, which is taken off too; all of it when there is no `end`.
std::string_view TakeUntil(std::string_view& text, char end) {
  const std::size_t length = std::min(text.find(end), text.size());
  const std::string_view part = text.substr(0, length);
  text.remove_prefix(std::min(length + 1, text.size()));
  return part;
}

bool IsName(std::string_view host) {
  if (host.empty() || host.size() > kLongestHost || host.back() == '.') {
    return false;
  }
  while (!host.empty()) {
    const std::string_view label = TakeUntil(host, '.');
    if (label.empty() || label.size() > kLongestLabel ||
        label.find_first_not_of(kHostLetters) != std::string_view::npos || label.front() == '-' ||
        label.back() == '-') {
      return false;
    }
  }
  return true;
}

// Eight groups of up to four hexadecimal digits, a run of which may be left out as "::"; the last two may be an IPv4
// address.
bool IsIpv6(std::string_view text) {
  const std::size_t gap = text.find("::");
  const bool hasGap = gap != std::string_view::npos;
  if (hasGap && text.find("::", gap + 1) != std::string_view::npos) {
    return false;
  }
  int groups = 0;
  const auto count = [&groups](std::string_view part, bool atEnd) {
    if (part.empty()) {
      return true;
    }
    if (part.back() == ':') {
      return false;
    }
    while (!part.empty()) {
      const std::string_view group = TakeUntil(part, ':');
      if (part.empty() && atEnd && network::ParseAddress(group)) {
        groups += 2;
        return true;
      }
      if (group.empty() || group.size() > 4 ||
          group.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
        return false;
      }
      ++groups;
    }
    return true;
  };
  const bool good = hasGap ? count(text.substr(0, gap), false) && count(text.substr(gap + 2), true) : count(text, true);
  return good && (hasGap ? groups < 8 : groups == 8);
}

// A name, an IPv4 address, or an IPv6 address in brackets. What ends like an IPv4 address must be one.
bool IsHost(std::string_view host) {
  if (host.starts_with('[')) {
    return host.ends_with(']') && host.size() > 2 && IsIpv6(host.substr(1, host.size() - 2));
  }
  const std::string_view last = host.substr(host.find_last_of('.') + 1);
  const bool numeric = last.find_first_not_of(kDigits) == std::string_view::npos;
  return numeric ? network::ParseAddress(host).has_value() : IsName(host);
}

bool IsPort(std::string_view port) {
  if (port.empty() || port.size() > 5 || port.front() == '0' ||
      port.find_first_not_of(kDigits) != std::string_view::npos) {
    return false;
  }
  unsigned number = 0;
  for (const char digit : port) {
    number = number * 10 + static_cast<unsigned>(digit - '0');
  }
  return number <= 65'535;
}

// The colon before the port: the last one, outside of brackets.
std::size_t PortColon(std::string_view text) {
  const std::size_t colon = text.find_last_of(":]");
  return colon != std::string_view::npos && text[colon] == ':' ? colon : std::string_view::npos;
}

bool IsHostAndPort(std::string_view text) {
  const std::size_t colon = PortColon(text);
  return colon != std::string_view::npos && IsHost(text.substr(0, colon)) && IsPort(text.substr(colon + 1));
}

bool IsServer(std::string_view text) {
  if (text.find('=') == std::string_view::npos) {
    return IsHostAndPort(text);
  }
  bool seen[2] = {};
  while (!text.empty()) {
    if (text.ends_with(';')) {
      return false;
    }
    std::string_view entry = TakeUntil(text, ';');
    const std::string_view scheme = TakeUntil(entry, '=');
    bool& known = seen[scheme == "https" ? 1 : 0];
    if ((scheme != "http" && scheme != "https") || known || !IsHostAndPort(entry)) {
      return false;
    }
    known = true;
  }
  return true;
}

bool IsBypass(std::string_view list) {
  if (list.size() > kLongestBypass) {
    return false;
  }
  constexpr std::string_view kSeparators = "; ";
  const std::string allowed = std::string(kHostLetters) + ".*:[]/";
  while (!list.empty()) {
    const std::string_view entry = list.substr(0, list.find_first_of(kSeparators));
    list.remove_prefix(std::min(entry.size() + 1, list.size()));
    if (entry != "<local>" && entry.find_first_not_of(allowed) != std::string_view::npos) {
      return false;
    }
  }
  return true;
}

bool IsPacUrl(std::string_view url) {
  if (url.size() > kLongestUrl || !IsVisible(url)) {
    return false;
  }
  const std::string_view scheme = TakeUntil(url, ':');
  if ((scheme != "http" && scheme != "https") || !url.starts_with("//")) {
    return false;
  }
  const std::string_view rest = url.substr(2);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#\\"));
  return PortColon(authority) == std::string_view::npos ? IsHost(authority) : IsHostAndPort(authority);
}

}  // namespace

ProxySetRequest ParseProxySet(const json::Value& request) {
  ProxySetRequest parsed;
  parsed.mode = json::Member(request, "mode").text();
  if (parsed.mode == "auto") {
    parsed.pacUrl = json::Member(request, "pacUrl").text();
    parsed.invalid = IsPacUrl(parsed.pacUrl) ? nullptr : "pacUrl";
  } else if (parsed.mode == "manual") {
    const json::Value& bypass = json::Member(request, "bypass");
    parsed.proxy = {json::Member(request, "server").text(), bypass.text()};
    if (!IsServer(parsed.proxy.server)) {
      parsed.invalid = "server";
    } else if (!(bypass.IsNull() || bypass.IsString()) || !IsBypass(parsed.proxy.bypass)) {
      parsed.invalid = "bypass";
    }
  } else if (parsed.mode != "none") {
    parsed.invalid = "mode";
  }
  return parsed;
}

json::Value ToJson(const Proxy& proxy) {
  json::Value value = json::Value::Object();
  value.Set("server", proxy.server).Set("bypass", proxy.bypass);
  return value;
}

std::optional<Proxy> FromJson(const json::Value& value) {
  const json::Value& server = json::Member(value, "server");
  const json::Value& bypass = json::Member(value, "bypass");
  return server.IsString() && bypass.IsString() ? std::optional(Proxy{server.text(), bypass.text()}) : std::nullopt;
}

}  // namespace kiosk::proxy
