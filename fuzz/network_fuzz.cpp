// Lines "r<JSON>" as requests for an adapter's settings and others as stored settings and records of changes: taken
// exactly when another library's reading, with the C library's addresses, has every member right, and then as they
// stand there.
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "network/adapter_settings.h"

namespace {

using kiosk::json::Value;
using kiosk::network::Settings;

Peer Printed(const Settings& settings) { return Peer::parse(kiosk::json::Serialise(kiosk::network::ToJson(settings))); }

bool AreAddresses(const Peer& list, bool (*right)(std::int64_t address)) {
  return list.is_array() && std::all_of(list.begin(), list.end(), [right](const Peer& each) {
           return each.is_string() && right(Ipv4(each.get<std::string>()));
         });
}

// Of one computer: below the multicast addresses, and not of "this network".
bool IsOfOne(std::int64_t address) { return address >= 1LL << 24 && address < 224LL << 24; }

// In a network of so many addresses neither the first nor the last, and not loopback.
bool IsHost(std::int64_t address, std::int64_t count) {
  return IsOfOne(address) && address / (1 << 24) != 127 && address % count != 0 && address % count != count - 1;
}

bool AreServers(const Peer& list) {
  return AreAddresses(list, IsOfOne) && list.size() <= 4 &&
         std::set<Peer>(list.begin(), list.end()).size() == list.size();
}

// As a request for a static address.
bool IsStatic(const Peer& sent) {
  const std::int64_t prefix = WholeNumber(MemberOf(sent, "prefixLength"), 30);
  const std::int64_t count = std::int64_t{1} << (32 - std::max<std::int64_t>(prefix, 1));
  const std::int64_t address = Ipv4(TextOf(MemberOf(sent, "address")));
  const Peer gateway = MemberOf(sent, "gateway");
  const std::int64_t next = Ipv4(TextOf(gateway));
  const bool reached = gateway.is_null() || (IsHost(next, count) && next / count == address / count && next != address);
  return prefix >= 1 && IsHost(address, count) && reached && AreServers(MemberOf(sent, "dns"));
}

Peer AsStored(const Peer& sent) {
  const bool fixed = sent["mode"] == "static";
  const Peer gateway = fixed ? MemberOf(sent, "gateway") : Peer();
  const Peer dns = MemberOf(sent, "dns");
  const Peer own = {{"address", MemberOf(sent, "address")},
                    {"prefixLength", WholeNumber(MemberOf(sent, "prefixLength"), 30)}};
  return {{"dhcp", !fixed},
          {"addresses", fixed ? Peer::array({own}) : Peer::array()},
          {"gateways", gateway.is_null() ? Peer::array() : Peer::array({gateway})},
          {"dns", dns.is_null() ? Peer::array() : dns}};
}

void CheckRequest(const Value& value, const Peer& sent) {
  const kiosk::network::NetSetRequest request = kiosk::network::ParseNetSet(value);
  const Peer mode = MemberOf(sent, "mode");
  const Peer keep = MemberOf(sent, "keep");
  const Peer dns = MemberOf(sent, "dns");
  const bool right = !TextOf(MemberOf(sent, "adapter")).empty() && (keep.is_null() || keep.is_boolean()) &&
                     (mode == "static" ? IsStatic(sent) : mode == "dhcp" && (dns.is_null() || AreServers(dns)));
  Require((request.invalid == nullptr) == right);
  if (right) {
    Require(request.adapter == sent["adapter"].get<std::string>() && request.keep == (keep == true));
    Require(Printed(request.settings) == AsStored(sent));
  }
}

bool AreSettings(const Peer& sent) {
  const auto isAddress = [](std::int64_t address) { return address >= 0; };
  const Peer own = MemberOf(sent, "addresses");
  return MemberOf(sent, "dhcp").is_boolean() && AreAddresses(MemberOf(sent, "gateways"), isAddress) &&
         AreAddresses(MemberOf(sent, "dns"), isAddress) && own.is_array() &&
         std::all_of(own.begin(), own.end(), [](const Peer& each) {
           return Ipv4(TextOf(MemberOf(each, "address"))) >= 0 && WholeNumber(MemberOf(each, "prefixLength"), 32) >= 1;
         });
}

void CheckSettings(const Value& value, const Peer& sent) {
  const std::optional<Settings> settings = kiosk::network::FromJson(value);
  Require(settings.has_value() == AreSettings(sent));
  if (settings) {
    const Peer printed = Printed(*settings);
    for (const char* name : {"dhcp", "gateways", "dns"}) {
      Require(printed[name] == sent[name]);
    }
    const auto again = kiosk::json::Parse(printed.dump());
    Require(again && kiosk::network::FromJson(*again) == settings);
    Settings turned = *settings;
    std::reverse(turned.addresses.begin(), turned.addresses.end());
    std::reverse(turned.gateways.begin(), turned.gateways.end());
    Require(Same(turned, *settings) && IsBetween(turned, {*settings, {}}) && IsBetween(turned, {{}, *settings}));
    turned.dns.push_back(1);
    Require(!Same(turned, *settings));
  }
}

void CheckRecords(const Value& value, const Peer& sent) {
  const auto records = kiosk::network::RecordsFromJson(value);
  auto record = records.begin();
  for (const Peer& each : sent.is_array() ? sent : Peer::array()) {
    if (AreSettings(MemberOf(each, "settings"))) {
      Require(record != records.end() && record->adapter == TextOf(MemberOf(each, "adapter")));
      Require(record->wanted.has_value() == AreSettings(MemberOf(each, "wanted")));
      Require(record->from == record->before || AreSettings(MemberOf(each, "from")));
      Require(record->unproven == (record->wanted && MemberOf(each, "unproven") == true));
      ++record;
    }
  }
  const auto again = kiosk::json::Parse(kiosk::json::Serialise(kiosk::network::ToJson(records)));
  Require(record == records.end() && again && kiosk::network::RecordsFromJson(*again) == records);
}

void Check(std::string_view line) {
  const std::string_view text = line.substr(std::min<std::size_t>(line.size(), 1));
  const auto value = kiosk::json::Parse(text);
  const Peer sent = PeerOf(text);
  if (value && !sent.is_discarded()) {
    if (line[0] == 'r') {
      CheckRequest(*value, sent);
    } else {
      CheckSettings(*value, sent);
      CheckRecords(*value, sent);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  return 0;
}
