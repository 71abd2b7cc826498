// Network adapters and routes, and the management instrumentation that changes them.
#include <winsock2.h>

#include <ws2tcpip.h>

#include "network/gateways.h"
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/com.h"
#include "win32/wide_text.h"

#include <iphlpapi.h>
#include <netioapi.h>
#include <wbemidl.h>

#include <algorithm>
#include <cstddef>

namespace contract {
namespace {

using kiosk::win32::ComApartment;
using kiosk::win32::ComPtr;
using kiosk::win32::MakeBstr;

constexpr ULONG kFlags = GAA_FLAG_INCLUDE_GATEWAYS | GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST;
// A network for documents (RFC 5737).
constexpr wchar_t kAddress[] = L"192.0.2.2";
constexpr wchar_t kOther[] = L"192.0.2.3";
constexpr wchar_t kMask[] = L"255.255.255.0";
constexpr wchar_t kGateway[] = L"192.0.2.1";
constexpr ULONG kGatewayNumber = 0xC0000201;

class Adapters {
 public:
  Adapters() : room_(4096) {
    auto size = static_cast<ULONG>(room_.size() * sizeof(std::max_align_t));
    Asked::Needs(GetAdaptersAddresses(AF_INET, kFlags, nullptr, Get(), &size) == ERROR_SUCCESS, "a list of adapters");
  }
  IP_ADAPTER_ADDRESSES* Get() { return reinterpret_cast<IP_ADAPTER_ADDRESSES*>(room_.data()); }
  // The one of that name; null when it is not there.
  IP_ADAPTER_ADDRESSES* Find(const std::wstring& name) {
    IP_ADAPTER_ADDRESSES* each = Get();
    while (each != nullptr && kiosk::win32::ToNarrow(name) != each->AdapterName) {
      each = each->Next;
    }
    return each;
  }

 private:
  std::vector<std::max_align_t> room_;
};

NET_LUID LuidOf(const std::wstring& name) {
  Adapters adapters;
  const IP_ADAPTER_ADDRESSES* const adapter = adapters.Find(name);
  Asked::Needs(adapter != nullptr, "the adapter in the list");
  return adapter->Luid;
}

// Windows shows a change after a moment.
template <typename Condition>
bool Within10s(Condition condition) {
  for (int i = 0; i < 100 && !condition(); ++i) {
    Sleep(100);
  }
  return condition();
}

bool HasAddress(const std::wstring& name, const wchar_t* address) {
  Adapters adapters;
  const IP_ADAPTER_ADDRESSES* const adapter = adapters.Find(name);
  const IP_ADAPTER_UNICAST_ADDRESS* each = adapter != nullptr ? adapter->FirstUnicastAddress : nullptr;
  IN_ADDR wanted{};
  InetPtonW(AF_INET, address, &wanted);
  while (each != nullptr &&
         reinterpret_cast<sockaddr_in*>(each->Address.lpSockaddr)->sin_addr.s_addr != wanted.s_addr) {
    each = each->Next;
  }
  return each != nullptr;
}

// A default route over that gateway.
bool HasRoute(NET_LUID luid, ULONG gateway) {
  MIB_IPFORWARD_TABLE2* table = nullptr;
  Asked::Needs(GetIpForwardTable2(AF_INET, &table) == NO_ERROR, "the routes");
  const AtEnd free([&] { FreeMibTable(table); });
  return std::any_of(table->Table, table->Table + table->NumEntries, [&](const MIB_IPFORWARD_ROW2& row) {
    return row.InterfaceLuid.Value == luid.Value && row.DestinationPrefix.PrefixLength == 0 &&
           row.NextHop.Ipv4.sin_addr.s_addr == htonl(gateway);
  });
}

// Of the registry, where it is found after a restart.
std::wstring KeptGateway(const std::wstring& name) {
  wchar_t text[256]{};
  DWORD size = sizeof(text);
  RegGetValueW(HKEY_LOCAL_MACHINE, kiosk::network::InterfaceKey(name).c_str(), L"DefaultGateway", RRF_RT_REG_MULTI_SZ,
               nullptr, text, &size);
  return text;
}

// The Win32_NetworkAdapterConfiguration of one adapter.
class Configuration {
 public:
  struct Argument {
    const wchar_t* name;
    const wchar_t* text;
  };

  explicit Configuration(const std::wstring& adapter) {
    ComPtr<IWbemLocator> locator;
    Check(kiosk::win32::CreateInProcess(CLSID_WbemLocator, IID_IWbemLocator, locator), "management instrumentation");
    Check(locator->ConnectServer(MakeBstr(L"ROOT\\CIMV2").Get(), nullptr, nullptr, nullptr,
                                 WBEM_FLAG_CONNECT_USE_MAX_WAIT, nullptr, nullptr, services_.Put()),
          "its connection");
    Check(CoSetProxyBlanket(services_.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                            RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
          "its impersonation");
    ComPtr<IWbemCallResult> call;
    Check(services_->GetObject(MakeBstr(kClass).Get(), WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, nullptr, call.Put()),
          "its class");
    class_ = ResultOf(call);
    ComPtr<IEnumWbemClassObject> found;
    Check(services_->ExecQuery(
              MakeBstr(L"WQL").Get(),
              MakeBstr(std::wstring(L"SELECT * FROM ") + kClass + L" WHERE SettingID = \"" + adapter + L"\"").Get(),
              WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, found.Put()),
          "a query");
    ComPtr<IWbemClassObject> instance;
    ULONG count = 0;
    Check(found->Next(10'000, 1, instance.Put(), &count), "the adapter's configuration");
    VARIANT path{};
    Check(instance->Get(L"__RELPATH", 0, &path, nullptr, nullptr), "its path");
    path_ = kiosk::win32::BstrText(path.bstrVal);
    VariantClear(&path);
  }
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  // The number that the method answers.
  std::uint64_t Call(const wchar_t* method, std::initializer_list<Argument> arguments = {}) {
    ComPtr<IWbemClassObject> signature;
    ComPtr<IWbemClassObject> values;
    Check(class_->GetMethod(method, 0, signature.Put(), nullptr), "the method");
    if (signature) {
      Check(signature->SpawnInstance(0, values.Put()), "its arguments");
    }
    for (const Argument& each : arguments) {
      VARIANT list{};
      list.vt = VT_ARRAY | VT_BSTR;
      list.parray = SafeArrayCreateVector(VT_BSTR, 0, 1);
      LONG first = 0;
      SafeArrayPutElement(list.parray, &first, MakeBstr(each.text).Get());
      const HRESULT put = values->Put(each.name, 0, &list, 0);
      VariantClear(&list);
      Check(put, each.name);
    }
    ComPtr<IWbemCallResult> call;
    Check(services_->ExecMethod(MakeBstr(path_).Get(), MakeBstr(method).Get(), WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
                                values.Get(), nullptr, call.Put()),
          "the call");
    VARIANT answer{};
    Check(ResultOf(call)->Get(L"ReturnValue", 0, &answer, nullptr, nullptr), "its answer");
    return static_cast<std::uint32_t>(answer.lVal);
  }
  std::uint64_t EnableStatic(const wchar_t* address) {
    return Call(L"EnableStatic", {{L"IPAddress", address}, {L"SubnetMask", kMask}});
  }

 private:
  static ComPtr<IWbemClassObject> ResultOf(const ComPtr<IWbemCallResult>& call) {
    ComPtr<IWbemClassObject> result;
    Asked::Needs(Within10s([&] { return result || call->GetResultObject(0, result.Put()) == WBEM_S_NO_ERROR; }),
                 "the call's end");
    return result;
  }
  static constexpr wchar_t kClass[] = L"Win32_NetworkAdapterConfiguration";
  static void Check(HRESULT result, const wchar_t* what) { Check(result, kiosk::win32::ToNarrow(what).c_str()); }
  static void Check(HRESULT result, const char* what) {
    SetLastError(static_cast<DWORD>(result));
    Asked::Needs(result == S_OK, what);
  }

  ComPtr<IWbemServices> services_;
  ComPtr<IWbemClassObject> class_;
  std::wstring path_;
};

void ListsWantRoom(Asked& asked) {
  ULONG size = 1;
  alignas(std::max_align_t) std::byte small[1];
  asked.Same("1 byte",
             GetAdaptersAddresses(AF_INET, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(small), &size),
             ERROR_BUFFER_OVERFLOW);
  asked.True("the size that it tells", size > 1);
  Adapters adapters;
  const IP_ADAPTER_ADDRESSES* const first = adapters.Get();
  asked.True("names", first->AdapterName != nullptr && first->FriendlyName != nullptr);
  MIB_IF_ROW2 row{};
  row.InterfaceLuid = first->Luid;
  asked.Same("GetIfEntry2 of the first", GetIfEntry2(&row), NO_ERROR);
  row.InterfaceLuid.Value = 0x7FFFFFFF;
  asked.Same("GetIfEntry2 of one that is not there", GetIfEntry2(&row), ERROR_FILE_NOT_FOUND);
}

void RoutesAreListed(Asked& asked) {
  MIB_IPFORWARD_TABLE2* table = nullptr;
  asked.Same("GetIpForwardTable2", GetIpForwardTable2(AF_INET, &table), NO_ERROR);
  const AtEnd free([&] { FreeMibTable(table); });
  for (ULONG i = 0; table != nullptr && i < table->NumEntries; ++i) {
    asked.Same("the family of a route", table->Table[i].DestinationPrefix.Prefix.si_family, AF_INET);
  }
}

// "InitializeIpForwardEntry function": what it leaves is not valid yet.
void RoutesComeAndGo(Asked& asked) {
  const SpareAdapter adapter;
  MIB_IPFORWARD_ROW2 row;
  InitializeIpForwardEntry(&row);
  asked.Same("a fresh entry's lifetime", row.ValidLifetime, INFINITE);
  asked.Same("CreateIpForwardEntry2 of it", CreateIpForwardEntry2(&row), ERROR_INVALID_PARAMETER);
  row.SitePrefixLength = 0;
  row.Protocol = RouteProtocolNetMgmt;
  row.Metric = 0;
  row.DestinationPrefix.Prefix.Ipv4.sin_family = AF_INET;
  row.DestinationPrefix.PrefixLength = 0;
  row.NextHop.Ipv4.sin_family = AF_INET;
  row.NextHop.Ipv4.sin_addr.s_addr = htonl(kGatewayNumber);
  row.InterfaceLuid = LuidOf(adapter.Name());
  asked.Same("CreateIpForwardEntry2", CreateIpForwardEntry2(&row), NO_ERROR);
  asked.True("the route is listed", HasRoute(row.InterfaceLuid, kGatewayNumber));
  asked.Same("a second time", CreateIpForwardEntry2(&row), ERROR_OBJECT_ALREADY_EXISTS);
  asked.Same("DeleteIpForwardEntry2", DeleteIpForwardEntry2(&row), NO_ERROR);
  asked.True("the route is gone", !HasRoute(row.InterfaceLuid, kGatewayNumber));
  asked.Same("a second time", DeleteIpForwardEntry2(&row), ERROR_NOT_FOUND);
}

// "EnableStatic method": 81 where DHCP cannot be configured, which is so on an adapter that has none.
void StaticAddresses(Asked& asked) {
  const ComApartment apartment;
  const SpareAdapter adapter;
  Configuration configuration(adapter.Name());
  asked.OneOf("EnableStatic from DHCP", configuration.EnableStatic(kAddress), {0, 1});
  asked.True("the address", Within10s([&] { return HasAddress(adapter.Name(), kAddress); }));
  const std::uint64_t again = configuration.EnableStatic(kOther);
  asked.OneOf("EnableStatic on a static adapter", again, {0, 1, 81});
  asked.Tells("which of them", again);
  asked.True("the other address", Within10s([&] { return HasAddress(adapter.Name(), kOther); }));
}

// "SetGateways method": the adapter's own address clears them.
void GatewaysAreCleared(Asked& asked) {
  const ComApartment apartment;
  const SpareAdapter adapter;
  Configuration configuration(adapter.Name());
  const NET_LUID luid = LuidOf(adapter.Name());
  asked.Same("SetGateways beside DHCP", configuration.Call(L"SetGateways", {{L"DefaultIPGateway", kGateway}}), 64);
  asked.OneOf("EnableStatic", configuration.EnableStatic(kAddress), {0, 1});
  asked.OneOf("SetGateways", configuration.Call(L"SetGateways", {{L"DefaultIPGateway", kGateway}}), {0, 1});
  asked.True("the route", Within10s([&] { return HasRoute(luid, kGatewayNumber); }));
  asked.Tells("without its argument", configuration.Call(L"SetGateways"));
  asked.OneOf("SetGateways with the own address", configuration.Call(L"SetGateways", {{L"DefaultIPGateway", kAddress}}),
              {0, 1});
  asked.True("the route is gone", Within10s([&] { return !HasRoute(luid, kGatewayNumber); }));
  asked.True("nor does it come back with a restart", KeptGateway(adapter.Name()) != kGateway);
}

// "EnableDHCP method": it does not clear static gateways. Whether the route over one stays in force no page says.
void DhcpKeepsGateways(Asked& asked) {
  const ComApartment apartment;
  const SpareAdapter adapter;
  Configuration configuration(adapter.Name());
  asked.OneOf("EnableStatic", configuration.EnableStatic(kAddress), {0, 1});
  asked.OneOf("SetGateways", configuration.Call(L"SetGateways", {{L"DefaultIPGateway", kGateway}}), {0, 1});
  const NET_LUID luid = LuidOf(adapter.Name());
  asked.True("the route", Within10s([&] { return HasRoute(luid, kGatewayNumber); }));
  asked.OneOf("EnableDHCP", configuration.Call(L"EnableDHCP"), {0, 1});
  asked.True("the address goes", Within10s([&] { return !HasAddress(adapter.Name(), kAddress); }));
  asked.Tells("the route stays", HasRoute(luid, kGatewayNumber) ? 1 : 0);
  asked.Same("the gateway in the registry", KeptGateway(adapter.Name()), kGateway);
}

constexpr Case kCases[] = {
    {"list", "a list that does not fit tells the room it wants; one that is not there is an error", ListsWantRoom},
    {"routes", "routes are listed by family", RoutesAreListed},
    {"route", "a default route comes and goes, and both are told", RoutesComeAndGo},
    {"static", "an address by hand shows, also on an adapter that had another", StaticAddresses},
    {"clear", "gateways are cleared by the adapter's own address", GatewaysAreCleared},
    {"dhcp", "DHCP leaves the gateways that were set by hand", DhcpKeepsGateways},
};

}  // namespace

extern const Group kAdapters;
const Group kAdapters{"adapters", kCases};

}  // namespace contract
