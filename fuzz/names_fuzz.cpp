// Each line as an address, judged by the C library, and as the name of a host, judged by an expression.
#include "fuzz/peer.h"
#include "json/serialise.h"
#include "network/address.h"
#include "portal/sign_in_methods.h"

#include <arpa/inet.h>

namespace {

using kiosk::json::Value;

void CheckAddress(const std::string& text) {
  in_addr read{};
  const bool right = text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &read) == 1;
  const auto address = kiosk::network::ParseAddress(text);
  Require(address.has_value() == right);
  Require(!right || (*address == ntohl(read.s_addr) && kiosk::network::AddressText(*address) == text));
}

void CheckHost(const std::string& text) {
  static const std::regex form("([a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?\\.)+[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?");
  const bool right = text.size() <= 253 && std::regex_match(text, form);
  Value sent = Value::Array();
  sent.Append(text);
  const Value kept = kiosk::portal::NormaliseSignIn(Value::Object().Set("extraHosts", sent));
  const auto& hosts = kiosk::json::Member(kept, "extraHosts").items();
  Require(right ? hosts.size() == 1 && hosts[0].text() == text : hosts.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, [](std::string_view line) {
    CheckAddress(std::string(line));
    CheckHost(std::string(line));
  });
  return 0;
}
