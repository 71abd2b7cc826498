// The network adapters of this computer, as Windows' IP helper tells of them.
#pragma once

#include "network/adapter_settings.h"
#include "win32/winapi.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kiosk::network {

struct Adapter {
  std::wstring name;       // GUID text in braces, as Windows spells it
  std::uint64_t luid = 0;  // by which the IP helper knows it
  Settings settings;       // what it is set to
  Settings inUse;          // what it works with: with DHCP, what the network gave
  bool linkUp = false;     // the cable is in, or the wireless network is there; without it little of the rest shows
  bool settled = false;    // every address it is set to is in use
  bool duplicate = false;  // another computer has one of them
};

// The wired or Wi-Fi hardware adapter of that GUID text, in whatever letter case. ERROR_NOT_FOUND when there is none;
// any other error means that Windows did not tell.
DWORD ReadAdapter(std::wstring_view name, Adapter& adapter);

}  // namespace kiosk::network
