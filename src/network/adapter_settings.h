// What an adapter's IPv4 can be set to: read from a request, told in the log, and kept as JSON. No Windows header.
#pragma once

#include "json/value.h"
#include "network/address.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace kiosk::network {

struct OwnAddress {
  Address address = 0;
  int prefixLength = 0;

  friend bool operator==(const OwnAddress&, const OwnAddress&) = default;
};

// With DHCP, addresses are the network's to give and are empty here; gateways and name servers are those that were set
// in spite of it. Several addresses and gateways occur on a computer that was set up by other means.
struct Settings {
  bool dhcp = true;
  std::vector<OwnAddress> addresses;
  std::vector<Address> gateways;
  std::vector<Address> dns;

  friend bool operator==(const Settings&, const Settings&) = default;
};

// Whether both have the same effect. Windows keeps the order of the name servers, and of nothing else.
bool Same(const Settings& left, const Settings& right);

// Whether mode, addresses, gateways and name servers are each those of one of the ends, as in a change that was cut
// short. Gateways may also be cleared, in place of which Windows may show an own address of an end, or 0.0.0.0.
bool IsBetween(const Settings& shown, std::initializer_list<Settings> ends);

// For the log: "static 10.1.2.3/24, gateway 10.1.2.1, DNS 9.9.9.9".
std::string Describe(const Settings& settings);

// A checked request: either `invalid` names the first member that is wrong, or the rest is good.
struct NetSetRequest {
  const char* invalid = nullptr;
  std::string adapter;
  Settings settings;
  bool keep = false;
};

// "adapter": a text; "mode": "dhcp" or "static"; for "static" "address", "prefixLength" (1 to 30), "gateway" (or none)
// and "dns" (0 to 4 name servers); for "dhcp" nothing more is needed, and "dns" replaces the network's name servers.
// "keep" may be absent: true for settings that nothing has to prove.
NetSetRequest ParseNetSet(const json::Value& request);

// An array of their texts.
json::Value ToJson(const std::vector<Address>& addresses);

// Settings as JSON and back; empty for what is none.
json::Value ToJson(const Settings& settings);
std::optional<Settings> FromJson(const json::Value& value);

// A change of an adapter that is not over: under way, cut short, or not proven yet.
struct ChangeRecord {
  std::string adapter;
  Settings before;                 // when several changes followed each other: before the first
  Settings from;                   // what the last of them began with; `before` where a record does not say
  std::optional<Settings> wanted;  // none in a record that an older version of the service left
  bool unproven = false;           // made, and the portal has not answered since

  friend bool operator==(const ChangeRecord&, const ChangeRecord&) = default;
};

// Records as JSON and back; one without whole settings from before is passed over.
json::Value ToJson(const std::vector<ChangeRecord>& records);
std::vector<ChangeRecord> RecordsFromJson(const json::Value& list);

}  // namespace kiosk::network
