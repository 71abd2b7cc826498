// The default gateways that somebody set on an adapter: those in force, and those that come back with a restart.
// Windows names an adapter by the text of a GUID, and the IP helper by a number (LUID).
#pragma once

#include "network/address.h"
#include "win32/winapi.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kiosk::network {

// Below HKLM, where Windows keeps what the adapter is set to.
std::wstring InterfaceKey(const std::wstring& name);

// The gateways set by hand. Not among them: what the network gave, and a route that "route -p" keeps, which is the
// owner's. With DHCP also those that stand in the registry and would overrule the network's after a restart.
DWORD ReadGatewaysByHand(const std::wstring& name, std::uint64_t luid, bool dhcp, std::vector<Address>& gateways);

// For an adapter that uses DHCP, where Windows' management instrumentation refuses to change gateways: takes those of
// `gone` away, as far as the network does not give them as well, and adds those of `wanted` that are missing. False
// when a step failed, after the others; that is logged when `tell`.
bool SetGatewaysBesideDhcp(const std::wstring& name, std::uint64_t luid, const std::vector<Address>& gone,
                           const std::vector<Address>& wanted, bool tell);

}  // namespace kiosk::network
