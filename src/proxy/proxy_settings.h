// What the default proxy can be set to: read from a request, and kept as JSON. No Windows header.
#pragma once

#include "json/value.h"

#include <optional>
#include <string>

namespace kiosk::proxy {

// Windows' default proxy; an empty server stands for direct access.
struct Proxy {
  std::string server;
  std::string bypass;

  friend bool operator==(const Proxy&, const Proxy&) = default;
};

// A checked request: either `invalid` names the first member that is wrong, or the rest is good. `pacUrl` is for the
// mode "auto" alone, where the proxy is direct access.
struct ProxySetRequest {
  const char* invalid = nullptr;
  std::string mode;
  std::string pacUrl;
  Proxy proxy;
};

// "mode": "none", "auto" or "manual". With "auto" "pacUrl": an http or https address with a host, at most 2083
// characters. With "manual" "server": HOST:PORT, or one for each scheme as "http=HOST:PORT;https=HOST:PORT", where HOST
// is a name, an IPv4 address or an IPv6 address in brackets; and "bypass", which may be absent: at most 2048 characters
// of hosts (with "*" for any characters) and "<local>", separated by semicolons or blanks.
ProxySetRequest ParseProxySet(const json::Value& request);

json::Value ToJson(const Proxy& proxy);
std::optional<Proxy> FromJson(const json::Value& value);

}  // namespace kiosk::proxy
