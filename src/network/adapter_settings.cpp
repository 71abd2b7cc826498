#include "network/adapter_settings.h"

#include <algorithm>
#include <utility>

namespace kiosk::network {
namespace {

constexpr int kLongestPrefix = 30;  // leaves two hosts, beside the network and its broadcast
constexpr std::size_t kMostServers = 4;

std::optional<Address> AddressOf(const json::Value& value) {
  return value.IsString() ? ParseAddress(value.text()) : std::nullopt;
}

std::optional<int> PrefixOf(const json::Value& value) {
  for (int bits = 1; bits <= 32; ++bits) {
    if (value.IsNumber() && value.number() == bits) {
      return bits;
    }
  }
  return std::nullopt;
}

std::optional<std::vector<Address>> AddressesOf(const json::Value& list) {
  std::vector<Address> addresses;
  for (const json::Value& item : list.items()) {
    const std::optional<Address> address = AddressOf(item);
    if (!address) {
      return std::nullopt;
    }
    addresses.push_back(*address);
  }
  return list.IsArray() ? std::optional(std::move(addresses)) : std::nullopt;
}

bool ReadServers(const json::Value& list, std::vector<Address>& servers) {
  std::optional<std::vector<Address>> parsed = AddressesOf(list);
  if (!parsed || parsed->size() > kMostServers || !std::all_of(parsed->begin(), parsed->end(), IsUnicast)) {
    return false;
  }
  std::vector<Address> sorted = *parsed;
  std::sort(sorted.begin(), sorted.end());
  servers = std::move(*parsed);
  return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

// The first member that is wrong, or null.
const char* ReadStatic(const json::Value& request, Settings& settings) {
  const std::optional<Address> address = AddressOf(json::Member(request, "address"));
  if (!address || !IsUnicast(*address)) {
    return "address";
  }
  const std::optional<int> prefix = PrefixOf(json::Member(request, "prefixLength"));
  if (!prefix || *prefix > kLongestPrefix) {
    return "prefixLength";
  }
  if (!IsHostIn(*address, *prefix)) {
    return "address";
  }
  settings.addresses = {{*address, *prefix}};
  if (const json::Value& member = json::Member(request, "gateway"); !member.IsNull()) {
    const std::optional<Address> gateway = AddressOf(member);
    if (!gateway || gateway == address || !IsHostIn(*gateway, *prefix) ||
        ((*gateway ^ *address) & MaskOf(*prefix)) != 0) {
      return "gateway";
    }
    settings.gateways = {*gateway};
  }
  return ReadServers(json::Member(request, "dns"), settings.dns) ? nullptr : "dns";
}

std::vector<Address> Sorted(std::vector<Address> addresses) {
  std::sort(addresses.begin(), addresses.end());
  return addresses;
}

bool SameAddresses(const Settings& left, const Settings& right) {
  return std::is_permutation(left.addresses.begin(), left.addresses.end(), right.addresses.begin(),
                             right.addresses.end());
}
bool SameGateways(const Settings& left, const Settings& right) {
  return Sorted(left.gateways) == Sorted(right.gateways);
}

}  // namespace

bool Same(const Settings& left, const Settings& right) {
  return left.dhcp == right.dhcp && left.dns == right.dns && SameGateways(left, right) && SameAddresses(left, right);
}

bool IsBetween(const Settings& shown, std::initializer_list<Settings> ends) {
  const auto some = [ends](auto has) { return std::any_of(ends.begin(), ends.end(), has); };
  const auto isNone = [&](Address gateway) {
    return gateway == 0 || some([gateway](const Settings& end) {
             return std::any_of(end.addresses.begin(), end.addresses.end(),
                                [gateway](const OwnAddress& own) { return own.address == gateway; });
           });
  };
  return some([&](const Settings& end) { return shown.dhcp == end.dhcp; }) &&
         some([&](const Settings& end) { return shown.dns == end.dns; }) &&
         some([&](const Settings& end) { return SameAddresses(shown, end); }) &&
         (some([&](const Settings& end) { return SameGateways(shown, end); }) ||
          std::all_of(shown.gateways.begin(), shown.gateways.end(), isNone));
}

std::string Describe(const Settings& settings) {
  std::string text = settings.dhcp ? "DHCP" : "static";
  for (const OwnAddress& each : settings.addresses) {
    text += " " + AddressText(each.address) + "/" + std::to_string(each.prefixLength);
  }
  for (const Address gateway : settings.gateways) {
    text += ", gateway " + AddressText(gateway);
  }
  for (const Address server : settings.dns) {
    text += ", DNS " + AddressText(server);
  }
  return text;
}

NetSetRequest ParseNetSet(const json::Value& request) {
  NetSetRequest parsed;
  parsed.adapter = json::Member(request, "adapter").text();
  const std::string& mode = json::Member(request, "mode").text();
  if (parsed.adapter.empty()) {
    parsed.invalid = "adapter";
  } else if (mode == "static") {
    parsed.settings.dhcp = false;
    parsed.invalid = ReadStatic(request, parsed.settings);
  } else if (mode != "dhcp") {
    parsed.invalid = "mode";
  } else if (const json::Value& dns = json::Member(request, "dns");
             !dns.IsNull() && !ReadServers(dns, parsed.settings.dns)) {
    parsed.invalid = "dns";
  }
  const json::Value& keep = json::Member(request, "keep");
  parsed.keep = keep.IsBool() && keep.boolean();
  if (parsed.invalid == nullptr && !keep.IsNull() && !keep.IsBool()) {
    parsed.invalid = "keep";
  }
  return parsed;
}

json::Value ToJson(const std::vector<Address>& addresses) {
  json::Value list = json::Value::Array();
  for (const Address address : addresses) {
    list.Append(AddressText(address));
  }
  return list;
}

json::Value ToJson(const Settings& settings) {
  json::Value addresses = json::Value::Array();
  for (const OwnAddress& each : settings.addresses) {
    json::Value item = json::Value::Object();
    item.Set("address", AddressText(each.address)).Set("prefixLength", each.prefixLength);
    addresses.Append(std::move(item));
  }
  json::Value value = json::Value::Object();
  value.Set("dhcp", settings.dhcp).Set("addresses", std::move(addresses));
  value.Set("gateways", ToJson(settings.gateways)).Set("dns", ToJson(settings.dns));
  return value;
}

std::optional<Settings> FromJson(const json::Value& value) {
  Settings settings;
  const auto gateways = AddressesOf(json::Member(value, "gateways"));
  const auto dns = AddressesOf(json::Member(value, "dns"));
  if (!json::Member(value, "dhcp").IsBool() || !json::Member(value, "addresses").IsArray() || !gateways || !dns) {
    return std::nullopt;
  }
  for (const json::Value& item : json::Member(value, "addresses").items()) {
    const auto address = AddressOf(json::Member(item, "address"));
    const auto prefix = PrefixOf(json::Member(item, "prefixLength"));
    if (!address || !prefix) {
      return std::nullopt;
    }
    settings.addresses.push_back({*address, *prefix});
  }
  settings.dhcp = json::Member(value, "dhcp").boolean();
  settings.gateways = *gateways;
  settings.dns = *dns;
  return settings;
}

json::Value ToJson(const std::vector<ChangeRecord>& records) {
  json::Value list = json::Value::Array();
  for (const ChangeRecord& each : records) {
    json::Value item = json::Value::Object();
    item.Set("adapter", each.adapter).Set("settings", ToJson(each.before)).Set("from", ToJson(each.from));
    if (each.wanted) {
      item.Set("wanted", ToJson(*each.wanted)).Set("unproven", each.unproven);
    }
    list.Append(std::move(item));
  }
  return list;
}

std::vector<ChangeRecord> RecordsFromJson(const json::Value& list) {
  std::vector<ChangeRecord> records;
  for (const json::Value& item : list.items()) {
    if (std::optional<Settings> before = FromJson(json::Member(item, "settings"))) {
      Settings from = FromJson(json::Member(item, "from")).value_or(*before);
      std::optional<Settings> wanted = FromJson(json::Member(item, "wanted"));
      const bool unproven = wanted && json::Member(item, "unproven").boolean();
      records.push_back(
          {json::Member(item, "adapter").text(), std::move(*before), std::move(from), std::move(wanted), unproven});
    }
  }
  return records;
}

}  // namespace kiosk::network
