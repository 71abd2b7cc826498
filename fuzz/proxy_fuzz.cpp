// Lines "r<JSON>" as requests for the default proxy and "s<JSON>" as a stored one: taken exactly when another library's
// reading fits expressions and the C library's addresses, and then as it stands there.
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "proxy/proxy_settings.h"

namespace {

using kiosk::json::Value;
using kiosk::proxy::Proxy;

bool Fits(const std::string& text, const std::regex& form) {
  return text.size() <= 2100 && std::regex_match(text, form);
}

bool IsHost(const std::string& host) {
  static const std::regex name("(\\w([\\w-]{0,61}\\w)?[.])*\\w([\\w-]{0,61}\\w)?");
  static const std::regex numeric("(.*[.])?[0-9]+");
  static const std::regex brackets("\\[[0-9A-Fa-f:.]+\\]");
  if (Fits(host, brackets)) {
    in6_addr address{};
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) == 1;
  }
  return Fits(host, numeric) ? Ipv4(host) >= 0 : host.size() <= 253 && Fits(host, name);
}

bool IsHostAndPort(const std::string& text) {
  static const std::regex form("(.*):([1-9][0-9]{0,4})");
  std::smatch parts;
  return text.size() <= 2100 && std::regex_match(text, parts, form) && IsHost(parts[1]) &&
         std::stoi(parts[2]) <= 65'535;
}

bool IsServer(const std::string& text) {
  static const std::regex each("(https?)=([^=;]*)(;(https?)=([^=;]*))?");
  std::smatch parts;
  if (text.find('=') == text.npos) {
    return IsHostAndPort(text);
  }
  return text.size() <= 2100 && std::regex_match(text, parts, each) && IsHostAndPort(parts[2]) &&
         (!parts[3].matched || (parts[1] != parts[4] && IsHostAndPort(parts[5])));
}

bool IsBypass(const std::string& text) {
  static const std::regex form("((<local>|[\\w.*:\\[\\]/-]*)[; ])*(<local>|[\\w.*:\\[\\]/-]*)");
  return text.size() <= 2048 && std::regex_match(text, form);
}

bool IsScript(const std::string& text) {
  static const std::regex form("https?://([^/?#\\\\]*)([/?#\\\\].*)?");
  static const std::regex visible("[!#-~]*");
  std::smatch parts;
  return text.size() <= 2083 && std::regex_match(text, visible) && std::regex_match(text, parts, form) &&
         (IsHost(parts[1]) || IsHostAndPort(parts[1]));
}

void RequireComesBack(const Proxy& proxy) {
  const auto again = kiosk::json::Parse(kiosk::json::Serialise(kiosk::proxy::ToJson(proxy)));
  Require(again && kiosk::proxy::FromJson(*again) == proxy);
}

void CheckRequest(const Value& value, const Peer& sent) {
  const kiosk::proxy::ProxySetRequest request = kiosk::proxy::ParseProxySet(value);
  const Peer mode = MemberOf(sent, "mode");
  const Peer bypass = MemberOf(sent, "bypass");
  const std::string server = TextOf(MemberOf(sent, "server"));
  const std::string script = TextOf(MemberOf(sent, "pacUrl"));
  const std::string wrong = mode == "auto"     ? IsScript(script) ? "" : "pacUrl"
                            : mode == "manual" ? !IsServer(server) ? "server"
                                                 : (bypass.is_null() || bypass.is_string()) && IsBypass(TextOf(bypass))
                                                     ? ""
                                                     : "bypass"
                            : mode == "none"   ? ""
                                               : "mode";
  Require(request.invalid == nullptr ? wrong.empty() : wrong == request.invalid);
  if (wrong.empty()) {
    const Proxy expected = mode == "manual" ? Proxy{server, TextOf(bypass)} : Proxy{};
    Require(mode == request.mode && request.proxy == expected && request.pacUrl == (mode == "auto" ? script : ""));
    RequireComesBack(request.proxy);
  }
}

void CheckStored(const Value& value, const Peer& sent) {
  const std::optional<Proxy> proxy = kiosk::proxy::FromJson(value);
  const Peer server = MemberOf(sent, "server");
  const Peer bypass = MemberOf(sent, "bypass");
  Require(proxy.has_value() == (server.is_string() && bypass.is_string()));
  if (proxy) {
    Require(server == proxy->server && bypass == proxy->bypass);
    RequireComesBack(*proxy);
  }
}

void Check(std::string_view line) {
  const std::string_view text = line.substr(std::min<std::size_t>(line.size(), 1));
  const auto value = kiosk::json::Parse(text);
  const Peer sent = PeerOf(text);
  if (value && !sent.is_discarded()) {
    line[0] == 'r' ? CheckRequest(*value, sent) : CheckStored(*value, sent);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  return 0;
}
