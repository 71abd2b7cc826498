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

// Adds to `gateways` those that were set by hand. What the network gave is not among them, nor a route that "route -p"
// keeps, which is the owner's. With DHCP they include those in the registry that would overrule the network's after a
// restart. Returns a Windows error.
DWORD ReadGatewaysByHand(const std::wstring& name, std::uint64_t luid, bool dhcp, std::vector<Address>& gateways);

// For an adapter that uses DHCP, where Windows' management instrumentation refuses to change gateways: takes away the
// routes over those of `gone` that the network does not give as well, adds those over `wanted` that are missing, and
// keeps `wanted` alone in the registry, where clearing them may have left the adapter's own address. All steps are
// tried; false when one failed, which is logged with `tell`.
bool SetGatewaysBesideDhcp(const std::wstring& name, std::uint64_t luid, const std::vector<Address>& gone,
                           const std::vector<Address>& wanted, bool tell);

}  // namespace kiosk::network
