// The default proxy: Windows' own setting, whose changes count.
#include "sim/faults.h"

#include <winhttp.h>

using namespace sim;

SIM(BOOL, WinHttpSetDefaultProxyConfiguration, WINHTTP_PROXY_INFO* info) {
  return Change<BOOL>(
      "WinHttpSetDefaultProxyConfiguration",
      [&] { return std::wstring(info->lpszProxy != nullptr ? info->lpszProxy : L""); },
      [&] { return ::WinHttpSetDefaultProxyConfiguration(info); });
}
