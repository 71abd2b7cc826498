#include "network/gateways.h"

#include "log/log.h"
#include "network/ip_helper.h"
#include "state/registry.h"
#include "win32/handle.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <string_view>

namespace kiosk::network {
namespace {

constexpr wchar_t kParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\";
// Lists of texts below an interface's key: set by hand, with a metric for each, and noted by the DHCP client.
constexpr wchar_t kByHand[] = L"DefaultGateway";
constexpr wchar_t kMetrics[] = L"DefaultGatewayMetric";
constexpr wchar_t kByNetwork[] = L"DhcpDefaultGateway";
constexpr wchar_t kAutomaticMetric[] = L"0";
constexpr DWORD kLongestName = 128;  // of a persistent route: four short fields

struct RouteTableTraits : win32::NullIsNone<MIB_IPFORWARD_TABLE2*> {
  static void Free(Value value) noexcept { FreeMibTable(value); }
};
using RouteTable = win32::Owner<RouteTableTraits>;

bool Has(const std::vector<Address>& addresses, Address address) {
  return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

bool IsDefault(const MIB_IPFORWARD_ROW2& row) {
  return row.DestinationPrefix.PrefixLength == 0 && row.NextHop.si_family == AF_INET &&
         row.NextHop.Ipv4.sin_addr.s_addr != 0;
}

DWORD ReadDefaultRoutes(std::uint64_t luid, std::vector<Address>& gateways) {
  RouteTable table;
  const DWORD error = GetIpForwardTable2(AF_INET, table.Put());
  if (error != NO_ERROR) {
    return error == ERROR_NOT_FOUND ? ERROR_SUCCESS : error;
  }
  for (ULONG i = 0; i < table.Get()->NumEntries; ++i) {
    const MIB_IPFORWARD_ROW2& row = table.Get()->Table[i];
    if (row.InterfaceLuid.Value == luid && IsDefault(row)) {
      gateways.push_back(ntohl(row.NextHop.Ipv4.sin_addr.s_addr));
    }
  }
  return ERROR_SUCCESS;
}

std::vector<Address> ReadList(const std::wstring& name, const wchar_t* value) {
  std::vector<Address> addresses;
  state::RawValue raw;
  if (state::ReadValue(InterfaceKey(name).c_str(), value, raw) != ERROR_SUCCESS || raw.type != REG_MULTI_SZ) {
    return addresses;
  }
  const std::wstring_view texts(reinterpret_cast<const wchar_t*>(raw.bytes.data()), raw.bytes.size() / sizeof(wchar_t));
  for (std::size_t at = 0; at < texts.size();) {
    const std::size_t end = std::min(texts.find(L'\0', at), texts.size());
    if (const std::optional<Address> address = ParseAddress(win32::ToNarrow(texts.substr(at, end - at)))) {
      addresses.push_back(*address);
    }
    at = end + 1;
  }
  return addresses;
}

bool WriteList(const std::wstring& name, const wchar_t* value, const std::vector<std::wstring>& texts) {
  std::wstring list;
  for (const std::wstring& text : texts) {
    list += text + L'\0';
  }
  return state::WriteString(InterfaceKey(name).c_str(), value, list, REG_MULTI_SZ);
}

// Gateways of the default routes among the values "DESTINATION,MASK,GATEWAY,METRIC".
std::vector<Address> PersistentGateways() {
  constexpr std::string_view kDefault = "0.0.0.0,0.0.0.0,";
  std::vector<Address> gateways;
  win32::RegistryKey key;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kParametersKey) + L"PersistentRoutes").c_str(), 0,
                    KEY_QUERY_VALUE, key.Put()) != ERROR_SUCCESS) {
    return gateways;
  }
  wchar_t buffer[kLongestName];
  for (DWORD index = 0;; ++index) {
    DWORD length = kLongestName;
    const LSTATUS error = RegEnumValueW(key.Get(), index, buffer, &length, nullptr, nullptr, nullptr, nullptr);
    if (error == ERROR_MORE_DATA) {
      continue;
    }
    if (error != ERROR_SUCCESS) {
      return gateways;
    }
    const std::string name = win32::ToNarrow({buffer, length});
    if (name.starts_with(kDefault)) {
      const std::string rest = name.substr(kDefault.size());
      if (const std::optional<Address> gateway = ParseAddress(rest.substr(0, rest.find(',')))) {
        gateways.push_back(*gateway);
      }
    }
  }
}

MIB_IPFORWARD_ROW2 DefaultRoute(std::uint64_t luid, Address gateway) {
  MIB_IPFORWARD_ROW2 row;
  InitializeIpForwardEntry(&row);
  row.InterfaceLuid.Value = luid;
  row.DestinationPrefix.Prefix.si_family = AF_INET;
  row.DestinationPrefix.PrefixLength = 0;
  row.NextHop.Ipv4.sin_family = AF_INET;
  row.NextHop.Ipv4.sin_addr.s_addr = htonl(gateway);
  row.SitePrefixLength = 0;
  row.Metric = 0;  // of its own: Windows adds the interface's
  row.Protocol = RouteProtocolNetMgmt;
  return row;
}

}  // namespace

std::wstring InterfaceKey(const std::wstring& name) { return kParametersKey + (L"Interfaces\\" + name); }

DWORD ReadGatewaysByHand(const std::wstring& name, std::uint64_t luid, bool dhcp, std::vector<Address>& gateways) {
  std::vector<Address> routes;
  if (const DWORD error = ReadDefaultRoutes(luid, routes); error != ERROR_SUCCESS) {
    return error;
  }
  const std::vector<Address> kept = ReadList(name, kByHand);
  // Nowhere but here does Windows tell a route that DHCP gave from one that was set by hand.
  const std::vector<Address> given = dhcp ? ReadList(name, kByNetwork) : std::vector<Address>();
  const std::vector<Address> owners = PersistentGateways();
  const auto add = [&](Address gateway) {
    if (!Has(gateways, gateway)) {
      gateways.push_back(gateway);
    }
  };
  for (const Address gateway : routes) {
    if (Has(kept, gateway) || (!Has(given, gateway) && !Has(owners, gateway))) {
      add(gateway);
    }
  }
  if (dhcp) {
    std::for_each(kept.begin(), kept.end(), add);
  }
  return ERROR_SUCCESS;
}

bool SetGatewaysBesideDhcp(const std::wstring& name, std::uint64_t luid, const std::vector<Address>& gone,
                           const std::vector<Address>& wanted, bool tell) {
  const std::vector<Address> given = ReadList(name, kByNetwork);
  const std::vector<Address> owners = PersistentGateways();
  std::vector<Address> kept = ReadList(name, kByHand);
  const std::vector<Address> before = kept;
  bool done = true;
  const auto check = [&](const char* step, Address gateway, DWORD error) {
    if (error != NO_ERROR) {
      done = false;
      if (tell) {
        log::Log(log::kError, log::kKiosk, "net.set: cannot %s the gateway %s (%lu)", step,
                 AddressText(gateway).c_str(), error);
      }
    }
  };
  std::erase_if(kept, [&](Address gateway) { return !Has(wanted, gateway); });
  for (const Address gateway : gone) {
    if (!Has(wanted, gateway) && !Has(given, gateway) && !Has(owners, gateway)) {
      const MIB_IPFORWARD_ROW2 row = DefaultRoute(luid, gateway);
      const DWORD error = DeleteIpForwardEntry2(&row);
      check("remove", gateway, error == ERROR_NOT_FOUND ? NO_ERROR : error);
    }
  }
  for (const Address gateway : wanted) {
    if (!Has(kept, gateway)) {
      kept.push_back(gateway);
    }
    const MIB_IPFORWARD_ROW2 row = DefaultRoute(luid, gateway);
    const DWORD error = CreateIpForwardEntry2(&row);
    check("add", gateway, error == ERROR_OBJECT_ALREADY_EXISTS ? NO_ERROR : error);
  }
  if (kept != before) {
    std::vector<std::wstring> texts;
    texts.reserve(kept.size());
    for (const Address gateway : kept) {
      texts.push_back(win32::ToWide(AddressText(gateway)));
    }
    const bool written = WriteList(name, kByHand, texts) &&
                         WriteList(name, kMetrics, std::vector(kept.size(), std::wstring(kAutomaticMetric)));
    check("keep", kept.empty() ? 0 : kept.front(), written ? NO_ERROR : ERROR_WRITE_FAULT);
  }
  return done;
}

}  // namespace kiosk::network
