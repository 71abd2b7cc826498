// The computer's default proxy of WinHTTP.
#include "tests/contract/contract.h"
#include "tests/contract/own_proxy.h"
#include "win32/handle.h"

#include <winhttp.h>

namespace contract {
namespace {

struct Setting {
  DWORD access = 0;
  std::wstring server;
  std::wstring bypass;
};

Setting Read() {
  WINHTTP_PROXY_INFO info{};
  Asked::Needs(WinHttpGetDefaultProxyConfiguration(&info) != 0, "the default proxy");
  Setting setting{info.dwAccessType, info.lpszProxy != nullptr ? info.lpszProxy : L"",
                  info.lpszProxyBypass != nullptr ? info.lpszProxyBypass : L""};
  GlobalFree(info.lpszProxy);
  GlobalFree(info.lpszProxyBypass);
  return setting;
}

bool Write(Setting setting) {
  const bool named = setting.access == WINHTTP_ACCESS_TYPE_NAMED_PROXY;
  WINHTTP_PROXY_INFO info{setting.access, named ? setting.server.data() : nullptr,
                          named && !setting.bypass.empty() ? setting.bypass.data() : nullptr};
  return WinHttpSetDefaultProxyConfiguration(&info) != 0;
}

void ProxiesComeBack(Asked& asked) {
  const OwnProxy back;
  asked.True("a named one", Write({WINHTTP_ACCESS_TYPE_NAMED_PROXY, L"proof.invalid:3128", L"*.local;<local>"}));
  const Setting named = Read();
  asked.Same("its kind", named.access, WINHTTP_ACCESS_TYPE_NAMED_PROXY);
  asked.Same("its server", named.server, L"proof.invalid:3128");
  asked.Same("its exceptions", named.bypass, L"*.local;<local>");
  asked.True("none", Write({WINHTTP_ACCESS_TYPE_NO_PROXY, L"", L""}));
  const Setting none = Read();
  asked.Same("its kind", none.access, WINHTTP_ACCESS_TYPE_NO_PROXY);
  asked.Same("its server", none.server, L"");
}

constexpr Case kCases[] = {
    {"default", "the default proxy, and none, read back as they were set", ProxiesComeBack},
};

}  // namespace

extern const Group kProxy;
const Group kProxy{"proxy", kCases};

}  // namespace contract
