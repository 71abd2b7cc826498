#include "network/adapters.h"

#include "network/gateways.h"
#include "network/ip_helper.h"
#include "state/registry.h"
#include "win32/grow.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace kiosk::network {
namespace {

constexpr ULONG kFlags = GAA_FLAG_INCLUDE_GATEWAYS | GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST;
constexpr DWORD kFirstSize = 32'768;

std::optional<Address> AddressOf(const SOCKET_ADDRESS& socket) {
  if (socket.lpSockaddr == nullptr || socket.lpSockaddr->sa_family != AF_INET) {
    return std::nullopt;
  }
  return ntohl(reinterpret_cast<const sockaddr_in*>(socket.lpSockaddr)->sin_addr.s_addr);
}

template <typename Entry>
std::vector<Address> ListOf(const Entry* entry) {
  std::vector<Address> addresses;
  for (; entry != nullptr; entry = entry->Next) {
    if (const std::optional<Address> address = AddressOf(entry->Address)) {
      addresses.push_back(*address);
    }
  }
  return addresses;
}

// Wired or Wi-Fi, and a device: virtual switches and tunnels call themselves wired too.
bool IsHardware(const IP_ADAPTER_ADDRESSES& entry) {
  MIB_IF_ROW2 row{};
  row.InterfaceLuid = entry.Luid;
  return (entry.IfType == IF_TYPE_ETHERNET_CSMACD || entry.IfType == IF_TYPE_IEEE80211) &&
         GetIfEntry2(&row) == NO_ERROR && row.InterfaceAndOperStatusFlags.HardwareInterface != 0;
}

// The name servers that were set by hand; the IP helper does not tell them from those that the network gave.
std::vector<Address> ServersSet(const std::wstring& name) {
  std::vector<Address> servers;
  const std::string list = win32::ToNarrow(state::ReadString(InterfaceKey(name).c_str(), L"NameServer").value_or(L""));
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = std::min(list.find_first_of(", ", at), list.size());
    if (const std::optional<Address> server = ParseAddress(std::string_view(list).substr(at, end - at))) {
      servers.push_back(*server);
    }
    at = end + 1;
  }
  return servers;
}

Adapter DescribeAdapter(const IP_ADAPTER_ADDRESSES& entry, std::wstring name) {
  Adapter adapter;
  adapter.luid = entry.Luid.Value;
  adapter.linkUp = entry.OperStatus == IfOperStatusUp;
  adapter.settled = true;
  adapter.settings.dhcp = adapter.inUse.dhcp = (entry.Flags & IP_ADAPTER_DHCP_ENABLED) != 0;
  for (const auto* each = entry.FirstUnicastAddress; each != nullptr; each = each->Next) {
    const std::optional<Address> address = AddressOf(each->Address);
    if (!address) {
      continue;
    }
    adapter.inUse.addresses.push_back({*address, each->OnLinkPrefixLength});
    if (!adapter.settings.dhcp && each->PrefixOrigin == IpPrefixOriginManual) {
      adapter.settings.addresses.push_back(adapter.inUse.addresses.back());
      adapter.settled = adapter.settled && each->DadState == IpDadStatePreferred;
      adapter.duplicate = adapter.duplicate || each->DadState == IpDadStateDuplicate;
    }
  }
  adapter.inUse.gateways = ListOf(entry.FirstGatewayAddress);
  adapter.inUse.dns = ListOf(entry.FirstDnsServerAddress);
  adapter.settings.dns = ServersSet(name);
  adapter.name = std::move(name);
  return adapter;
}

// An adapter whose gateway is its own address has none: that is how Windows is told to clear them.
DWORD ReadGateways(Adapter& adapter) {
  std::vector<Address>& gateways = adapter.settings.gateways;
  const DWORD error = ReadGatewaysByHand(adapter.name, adapter.luid, adapter.settings.dhcp, gateways);
  for (const OwnAddress& own : adapter.inUse.addresses) {
    std::erase(gateways, own.address);
  }
  return error;
}

}  // namespace

DWORD ReadAdapter(std::wstring_view name, Adapter& adapter) {
  std::vector<BYTE> buffer;
  const DWORD error = win32::CallGrowing(
      buffer,
      [](BYTE* out, DWORD* size) -> DWORD {
        ULONG needed = *size;
        const ULONG result =
            GetAdaptersAddresses(AF_INET, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(out), &needed);
        if (result == ERROR_BUFFER_OVERFLOW) {
          *size = needed;
          return ERROR_INSUFFICIENT_BUFFER;
        }
        return result;
      },
      kFirstSize);
  if (error != ERROR_SUCCESS) {
    return error == ERROR_NO_DATA || error == ERROR_ADDRESS_NOT_ASSOCIATED ? ERROR_NOT_FOUND : error;
  }
  for (const auto* entry = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()); entry != nullptr;
       entry = entry->Next) {
    std::wstring own = win32::ToWide(entry->AdapterName);
    if (win32::EqualIgnoringCase(own, name) && IsHardware(*entry)) {
      adapter = DescribeAdapter(*entry, std::move(own));
      return ReadGateways(adapter);
    }
  }
  return ERROR_NOT_FOUND;
}

}  // namespace kiosk::network
