// The default proxy: Windows' own setting, whose changes count.
#include "sim/faults.h"

#include <winhttp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

using namespace sim;

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
constexpr wchar_t kValue[] = L"WinHttpSettings";
constexpr std::size_t kFlagsAt = 8;
constexpr std::size_t kTextsAt = 12;  // each with its length before it: proxy, bypass, script
constexpr std::uint8_t kScript = 4;

std::vector<std::uint8_t> Kept() {
  std::uint8_t bytes[4096];
  DWORD size = sizeof(bytes);
  return RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_BINARY, nullptr, bytes, &size) == ERROR_SUCCESS
             ? std::vector<std::uint8_t>(bytes, bytes + size)
             : std::vector<std::uint8_t>(kTextsAt);
}

// From the third text on.
std::size_t ScriptAt(const std::vector<std::uint8_t>& bytes) {
  std::size_t at = kTextsAt;
  for (int i = 0; i < 2 && at + sizeof(DWORD) <= bytes.size(); ++i) {
    DWORD length = 0;
    std::memcpy(&length, bytes.data() + at, sizeof(length));
    at += sizeof(length) + length;
  }
  return std::min(at, bytes.size());
}

// Nothing says that setting a proxy takes away a script that another program left there.
BOOL SetBesideScript(WINHTTP_PROXY_INFO* info) {
  const std::vector<std::uint8_t> before = Kept();
  if (!::WinHttpSetDefaultProxyConfiguration(info)) {
    return FALSE;
  }
  if ((before[kFlagsAt] & kScript) != 0) {
    std::vector<std::uint8_t> now = Kept();
    now[kFlagsAt] |= kScript;
    now.insert(now.end(), before.begin() + static_cast<std::ptrdiff_t>(ScriptAt(before)), before.end());
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_BINARY, now.data(), static_cast<DWORD>(now.size()));
  }
  return TRUE;
}

}  // namespace

SIM(BOOL, WinHttpSetDefaultProxyConfiguration, WINHTTP_PROXY_INFO* info) {
  return Change<BOOL>(
      "WinHttpSetDefaultProxyConfiguration",
      [&] { return std::wstring(info->lpszProxy != nullptr ? info->lpszProxy : L""); },
      [&] { return SetBesideScript(info); });
}
