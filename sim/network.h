// Network adapters of the simulated computer, as the IP helper and Windows' management instrumentation tell of them.
//
// Area "Adapters\\{GUID}": numbers "Type" (6 wired, 71 Wi-Fi), "Hardware" (1), "Cable" (1; 0: it is out), "Dhcp" (1),
// "Lag" (ms until a change shows); texts "Addresses" ("10.0.0.2/24 ..."), "Gateways" (of the default routes by hand),
// "OwnersRoutes" (gateways of other default routes), "Lease" ("ADDRESS/BITS GATEWAY DNS", what the network gives),
// "Duplicate" (an address that another computer has), "Hangs" (a method that never ends), and a number named after a
// method: what it answers. Name servers are where Windows keeps them, and so are the gateways by hand for the next
// restart. Each method, and each change of a route, is a call that changes the machine; a method that a test fails
// answers the error's number.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

inline constexpr wchar_t kFactoryAdapter[] = L"{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}";

// A computer without any gets one wired adapter with a lease when it is asked about its adapters; this makes another.
void AddAdapter(const std::wstring& name, DWORD type = 6, bool hardware = true);

// Those that are in force and those that would be after a restart.
void SetGatewaysByHand(const std::wstring& name, const std::wstring& gateways);

// Of all adapters, as lines of text, for comparison.
std::string DumpAdapters();

}  // namespace sim
