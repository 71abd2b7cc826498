// Network adapters of the simulated computer, as the IP helper and Windows' management instrumentation tell of them.
// Name servers are where Windows keeps them, and so are the gateways by hand for the next restart. Each method of
// management instrumentation, and each change of a route, is a call that changes the machine; a method that a test
// fails answers the error's number.
#pragma once

#include "sim/machine.h"

namespace sim {

inline constexpr wchar_t kFactoryAdapter[] = L"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}";

struct Adapter {
  explicit Adapter(const std::wstring& name) : area(L"Adapters\\" + name) {}

  std::wstring area;
  Field<> type{area, L"Type", 6};  // 6 wired, 71 Wi-Fi
  Field<> hardware{area, L"Hardware", 1};
  Field<> cable{area, L"Cable", 1};  // 0: it is out
  Field<> dhcp{area, L"Dhcp", 1};
  Field<> lag{area, L"Lag"};                                // ms until a change shows
  Field<std::wstring> addresses{area, L"Addresses"};        // "10.0.0.2/24 ..."
  Field<std::wstring> gateways{area, L"Gateways"};          // of the default routes by hand
  Field<std::wstring> ownersRoutes{area, L"OwnersRoutes"};  // gateways of other default routes
  Field<std::wstring> lease{area, L"Lease"};                // "ADDRESS/BITS GATEWAY DNS", what the network gives
  Field<std::wstring> duplicate{area, L"Duplicate"};        // an address that another computer has
  Field<std::wstring> hangs{area, L"Hangs"};                // a method, or GetObject, that never ends
  Field<std::wstring> changedAt{area, L"ChangedAt"};
  // What these methods answer without doing anything; absent: they do it.
  Field<> enableDhcp{area, L"EnableDHCP"}, enableStatic{area, L"EnableStatic"}, setGateways{area, L"SetGateways"};
  Field<> setNameServers{area, L"SetDNSServerSearchOrder"};
};

// A computer without any gets one wired adapter with a lease when it is asked about its adapters; this makes another.
void AddAdapter(const std::wstring& name, DWORD type = 6, bool hardware = true);

// Those that are in force and those that would be after a restart.
void SetGatewaysByHand(const std::wstring& name, const std::wstring& gateways);

// Of all adapters, as lines of text, for comparison.
std::string DumpAdapters();

}  // namespace sim
