#include <winsock2.h>
#include <ws2ipdef.h>

#include <iphlpapi.h>  // wants the two above

#include "sim/network.h"

#include "sim/clock.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/network_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <sstream>
#include <utility>
#include <vector>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Adapters";
constexpr wchar_t kInterfaces[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\";
constexpr ULONG kNeededSize = 40'000;  // more than a caller begins with

}  // namespace

Texts Words(const std::wstring& text) {
  std::wistringstream stream(text);
  Texts words;
  for (std::wstring word; stream >> word;) {
    words.push_back(word);
  }
  return words;
}

std::wstring Joined(const Texts& texts) {
  std::wstring joined;
  for (const std::wstring& text : texts) {
    joined += (joined.empty() ? L"" : L" ") + text;
  }
  return joined;
}

std::wstring Kept(const std::wstring& name, const wchar_t* value, DWORD type) {
  wchar_t text[512] = L"";
  DWORD size = sizeof(text) - sizeof(wchar_t);
  RegGetValueW(HKEY_LOCAL_MACHINE, (kInterfaces + name).c_str(), value,
               type == REG_SZ ? RRF_RT_REG_SZ : RRF_RT_REG_MULTI_SZ, nullptr, text, &size);
  for (std::size_t i = 0; i + 1 < size / sizeof(wchar_t); ++i) {
    text[i] = text[i] == L',' || text[i] == L'\0' ? L' ' : text[i];
  }
  return Joined(Words(text));
}
void Keep(const std::wstring& name, const wchar_t* value, DWORD type, std::wstring texts) {
  if (type == REG_MULTI_SZ) {
    std::replace(texts.begin(), texts.end(), L' ', L'\0');
    texts += texts.empty() ? L"" : std::wstring(1, L'\0');
  }
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, (kInterfaces + name).c_str(), value, type, texts.c_str(),
                  static_cast<DWORD>((texts.size() + 1) * sizeof(wchar_t)));
}

void KeepLease(const std::wstring& name) {
  const Texts lease = Words(Adapter(name).lease.Get());
  Keep(name, L"DhcpDefaultGateway", REG_MULTI_SZ, lease.size() > 1 ? lease[1] : L"");
}

bool IsOwn(const std::wstring& name, const std::wstring& address) {
  const Texts own = Words(Adapter(name).addresses.Get());
  return std::any_of(own.begin(), own.end(),
                     [&](const std::wstring& each) { return each.starts_with(address + L"/"); });
}

Texts Adapters() {
  if (AreaNames(kArea).empty()) {
    AddAdapter(kFactoryAdapter);
  }
  return AreaNames(kArea);
}

unsigned long AddressNumber(const std::wstring& text) {
  unsigned parts[4] = {};
  if (std::swscanf(text.c_str(), L"%u.%u.%u.%u", &parts[0], &parts[1], &parts[2], &parts[3]) != 4) {
    return 0;
  }
  return htonl(parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3]);
}

namespace {

// The default routes of an adapter that is connected, by their gateways: those set by hand, those of the owner's, and
// what the network gave.
Texts DefaultRoutes(const std::wstring& name) {
  if (Adapter(name).cable.Get() == 0) {
    return {};
  }
  Texts gateways = Words(Adapter(name).gateways.Get());
  const Texts owners = Words(Adapter(name).ownersRoutes.Get());
  gateways.insert(gateways.end(), owners.begin(), owners.end());
  const Texts lease = Words(Adapter(name).lease.Get());
  if (Adapter(name).dhcp.Get() != 0 && lease.size() > 1 &&
      std::count(gateways.begin(), gateways.end(), lease[1]) == 0) {
    gateways.push_back(lease[1]);
  }
  return gateways;
}

bool Settled(const std::wstring& name) {
  const auto changed = std::wcstoull(Adapter(name).changedAt.Get().c_str(), nullptr, 10);
  return ClockNow() >= changed + Adapter(name).lag.Get();
}

// Hands out pieces of the caller's buffer.
class Room {
 public:
  explicit Room(void* begin) : next_(static_cast<char*>(begin)) {}
  template <typename T>
  T* New() {
    T* const made = reinterpret_cast<T*>(next_);
    std::memset(next_, 0, sizeof(T));
    next_ += (sizeof(T) + 15) / 16 * 16;
    return made;
  }
  void Set(SOCKET_ADDRESS& socket, const std::wstring& address) {
    auto* const in = New<sockaddr_in>();
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = AddressNumber(address);
    socket = {reinterpret_cast<sockaddr*>(in), sizeof(*in)};
  }
  template <typename Entry>
  Entry* Chain(const Texts& addresses) {
    Entry* first = nullptr;
    for (auto each = addresses.rbegin(); each != addresses.rend(); ++each) {
      Entry* const entry = New<Entry>();
      Set(entry->Address, *each);
      entry->Next = std::exchange(first, entry);
    }
    return first;
  }

 private:
  char* next_;
};

IP_ADAPTER_ADDRESSES* Describe(Room& room, const std::wstring& name, ULONG64 number) {
  auto* const entry = room.New<IP_ADAPTER_ADDRESSES>();
  using Name = char[64];
  entry->AdapterName = *room.New<Name>();
  std::strncpy(entry->AdapterName, Narrow(name).c_str(), sizeof(Name) - 1);
  static wchar_t friendlyName[] = L"Ethernet";
  entry->FriendlyName = friendlyName;
  entry->IfType = Adapter(name).type.Get();
  entry->Luid.Value = number;
  const bool cable = Adapter(name).cable.Get() != 0;
  const bool dhcp = Adapter(name).dhcp.Get() != 0;
  const Texts lease = dhcp && cable ? Words(Adapter(name).lease.Get()) : Texts();
  entry->OperStatus = cable ? IfOperStatusUp : IfOperStatusDown;
  entry->Flags = dhcp ? IP_ADAPTER_DHCP_ENABLED : 0;
  const Texts own = dhcp ? Texts(lease.begin(), lease.begin() + !lease.empty()) : Words(Adapter(name).addresses.Get());
  entry->FirstUnicastAddress = room.Chain<IP_ADAPTER_UNICAST_ADDRESS>(own);
  auto* unicast = entry->FirstUnicastAddress;
  for (const std::wstring& text : own) {
    unicast->OnLinkPrefixLength = static_cast<UINT8>(std::wcstoul(text.c_str() + text.find(L'/') + 1, nullptr, 10));
    unicast->PrefixOrigin = dhcp ? IpPrefixOriginDhcp : IpPrefixOriginManual;
    const bool duplicate = Adapter(name).duplicate.Get() == text.substr(0, text.find(L'/'));
    unicast->DadState = duplicate                ? IpDadStateDuplicate
                        : Settled(name) && cable ? IpDadStatePreferred
                                                 : IpDadStateTentative;
    unicast = unicast->Next;
  }
  entry->FirstGatewayAddress = room.Chain<IP_ADAPTER_GATEWAY_ADDRESS>(DefaultRoutes(name));
  Texts servers = Words(Kept(name, L"NameServer", REG_SZ));
  if (servers.empty() && lease.size() > 2) {
    servers = {lease[2]};
  }
  entry->FirstDnsServerAddress = room.Chain<IP_ADAPTER_DNS_SERVER_ADDRESS>(servers);
  return entry;
}

}  // namespace

void AddAdapter(const std::wstring& name, DWORD type, bool hardware) {
  Adapter(name).type.Set(type);
  Adapter(name).hardware.Set(hardware);
  Adapter(name).dhcp.Set(1);
  Adapter(name).lease.Set(L"192.168.7.20/24 192.168.7.1 192.168.7.2");
  KeepLease(name);
}

void SetGatewaysByHand(const std::wstring& name, const std::wstring& gateways) {
  Adapter(name).gateways.Set(gateways);
  Keep(name, L"DefaultGateway", REG_MULTI_SZ, gateways);
}

std::string DumpAdapters() {
  std::string text;
  for (const std::wstring& name : Adapters()) {
    const bool dhcp = Adapter(name).dhcp.Get() != 0;
    const std::wstring gateways = Joined(Words(Adapter(name).gateways.Get()));
    Texts keptOnes = Words(Kept(name, L"DefaultGateway"));
    std::erase_if(keptOnes, [&](const std::wstring& each) { return IsOwn(name, each); });  // that says: none
    const std::wstring kept = Joined(keptOnes);
    text += Narrow(name + (dhcp ? L" dhcp" : L" static") + L" [" + Joined(Words(Adapter(name).addresses.Get())) +
                   L"] [" + gateways + (kept != gateways ? L"; after a restart " + kept : L"") + L"] [" +
                   Kept(name, L"NameServer", REG_SZ) + L"]\n");
  }
  return text;
}

}  // namespace sim

using namespace sim;

SIM(ULONG, GetAdaptersAddresses, ULONG family, ULONG flags, PVOID, PIP_ADAPTER_ADDRESSES buffer, PULONG size) {
  if (family != AF_INET || (flags & GAA_FLAG_INCLUDE_GATEWAYS) == 0) {
    Violation("GetAdaptersAddresses: family %lu, flags 0x%lx", family, flags);
  }
  if (*size < kNeededSize) {
    *size = kNeededSize;
    return ERROR_BUFFER_OVERFLOW;
  }
  Room room(buffer);
  IP_ADAPTER_ADDRESSES* last = nullptr;
  ULONG64 number = 0;
  for (const std::wstring& name : Adapters()) {
    IP_ADAPTER_ADDRESSES* const entry = Describe(room, name, ++number);
    if (last != nullptr) {
      last->Next = entry;
    }
    last = entry;
  }
  return ERROR_SUCCESS;
}

SIM(NETIO_STATUS, GetIfEntry2, PMIB_IF_ROW2 row) {
  const Texts names = Adapters();
  if (row->InterfaceLuid.Value == 0 || row->InterfaceLuid.Value > names.size()) {
    return ERROR_FILE_NOT_FOUND;
  }
  row->InterfaceAndOperStatusFlags.HardwareInterface =
      Adapter(names[static_cast<std::size_t>(row->InterfaceLuid.Value - 1)]).hardware.Get() != 0;
  return NO_ERROR;
}

// The routes of all adapters: default ones, and one to a network of each.
SIM(NETIO_STATUS, GetIpForwardTable2, ADDRESS_FAMILY family, PMIB_IPFORWARD_TABLE2* table) {
  if (family != AF_INET) {
    Violation("GetIpForwardTable2: family %d", family);
  }
  std::vector<MIB_IPFORWARD_ROW2> rows;
  ULONG64 number = 0;
  for (const std::wstring& name : Adapters()) {
    ++number;
    Texts gateways = DefaultRoutes(name);
    gateways.emplace_back(L"0.0.0.0");
    for (const std::wstring& gateway : gateways) {
      const bool isDefault = gateway != L"0.0.0.0";
      MIB_IPFORWARD_ROW2 row{};
      row.InterfaceLuid.Value = number;
      row.DestinationPrefix.Prefix.Ipv4 = {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}};
      row.DestinationPrefix.PrefixLength = isDefault ? 0 : 8;
      row.NextHop.Ipv4 = row.DestinationPrefix.Prefix.Ipv4;
      row.NextHop.Ipv4.sin_addr.s_addr = AddressNumber(gateway);
      row.Protocol = RouteProtocolNetMgmt;  // its page: of DHCP as well as of whoever sets a route
      row.Origin = NlroManual;              // which "netsh interface ipv4 show route" shows for those of DHCP, too
      rows.push_back(row);
    }
  }
  const std::size_t bytes = rows.size() * sizeof(MIB_IPFORWARD_ROW2);
  *table = static_cast<MIB_IPFORWARD_TABLE2*>(std::malloc(sizeof(MIB_IPFORWARD_TABLE2) + bytes));
  (*table)->NumEntries = static_cast<ULONG>(rows.size());
  std::memcpy(&(*table)->Table[0], rows.data(), bytes);
  return NO_ERROR;
}

SIM(void, FreeMibTable, PVOID table) { std::free(table); }

SIM(void, InitializeIpForwardEntry, PMIB_IPFORWARD_ROW2 row) {
  *row = {};
  row->ValidLifetime = row->PreferredLifetime = INFINITE;
  row->Loopback = row->AutoconfigureAddress = row->Publish = row->Immortal = TRUE;
  row->SitePrefixLength = 255;  // this and the next two: not valid as they stand
  row->Metric = ~0UL;
  std::memset(&row->Protocol, 0xFF, sizeof(row->Protocol));
}

namespace {

// A default route by hand comes or goes. It lasts until a restart: only what stands in the registry comes back then.
NETIO_STATUS ChangeRoute(const char* function, const MIB_IPFORWARD_ROW2& row, bool add) {
  const ULONG number = ntohl(row.NextHop.Ipv4.sin_addr.s_addr);
  const std::wstring gateway = std::to_wstring(number >> 24) + L"." + std::to_wstring(number >> 16 & 255) + L"." +
                               std::to_wstring(number >> 8 & 255) + L"." + std::to_wstring(number & 255);
  return Change<NETIO_STATUS>(function, gateway, [&]() -> NETIO_STATUS {
    const Texts names = Adapters();
    const ULONG64 luid = row.InterfaceLuid.Value;
    if (row.DestinationPrefix.Prefix.si_family != AF_INET || row.DestinationPrefix.PrefixLength != 0 ||
        row.NextHop.si_family != AF_INET || number == 0) {
      Violation("%s: no default route of IPv4", function);
      return ERROR_INVALID_PARAMETER;
    }
    if (luid == 0 || luid > names.size()) {
      return ERROR_NOT_FOUND;
    }
    const std::wstring& name = names[static_cast<std::size_t>(luid - 1)];
    const Texts routes = DefaultRoutes(name);
    const bool there = std::count(routes.begin(), routes.end(), gateway) != 0;
    Texts byHand = Words(Adapter(name).gateways.Get());
    if (add) {
      byHand.push_back(gateway);
    } else if (there && std::erase(byHand, gateway) == 0) {
      Violation("%s: the route over %s is the network's or the owner's", function, Narrow(gateway).c_str());
    }
    if (there == add) {
      return add ? ERROR_OBJECT_ALREADY_EXISTS : ERROR_NOT_FOUND;
    }
    Adapter(name).gateways.Set(Joined(byHand));
    return NO_ERROR;
  });
}

}  // namespace

SIM(NETIO_STATUS, CreateIpForwardEntry2, const MIB_IPFORWARD_ROW2* row) {
  if (row->SitePrefixLength > 0 || row->PreferredLifetime > row->ValidLifetime || row->ValidLifetime == 0 ||
      row->Protocol != RouteProtocolNetMgmt) {
    return ERROR_INVALID_PARAMETER;
  }
  return ChangeRoute("CreateIpForwardEntry2", *row, true);
}

SIM(NETIO_STATUS, DeleteIpForwardEntry2, const MIB_IPFORWARD_ROW2* row) {
  return ChangeRoute("DeleteIpForwardEntry2", *row, false);
}
