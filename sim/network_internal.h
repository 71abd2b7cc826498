// What both sides of the simulated network adapters share: the IP helper's and that of management instrumentation.
#pragma once

#include "sim/network.h"

#include <string>
#include <vector>

namespace sim {

using Texts = std::vector<std::wstring>;
std::wstring Joined(const Texts& texts);  // with blanks

// All of them, by name.
Texts Adapters();
Texts Words(const std::wstring& text);
// Lists where Windows keeps them, joined by blanks: a text with commas (REG_SZ), or one text after the other.
std::wstring Kept(const std::wstring& name, const wchar_t* value, DWORD type = REG_MULTI_SZ);
void Keep(const std::wstring& name, const wchar_t* value, DWORD type, std::wstring texts);
// Whether the adapter was set to that address.
bool IsOwn(const std::wstring& name, const std::wstring& address);
// As the DHCP client notes which gateways the network gave.
void KeepLease(const std::wstring& name);

// In the order of bytes of the network; 0 for what is no address.
unsigned long AddressNumber(const std::wstring& text);

}  // namespace sim
