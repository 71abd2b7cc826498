#include "address_text.h"
#include "check.h"
#include "enrolment/auth_client.h"
#include "exchange.h"
#include "log/log.h"
#include "win32/clock.h"
#include "win32/http_call.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <winhttp.h>

#include <cstdlib>

namespace kioskctl {
namespace {

using kiosk::win32::HttpHandle;
using kiosk::win32::HttpTarget;
using kiosk::win32::ToNarrow;
using kiosk::win32::ToWide;

constexpr int kPatience = 10'000;        // ms for each step
constexpr std::int64_t kMostSkew = 120;  // seconds; certificates and sign-ins of the client go wrong with more

std::string AddressOf(const ADDRINFOW& address) { return AddressText(address.ai_addr, address.ai_addrlen); }

// The Winsock error of a connection to this address; 0 when there is one.
int Connect(const ADDRINFOW& address) {
  const kiosk::win32::Socket made(socket(address.ai_family, SOCK_STREAM, IPPROTO_TCP));
  u_long nonBlocking = 1;
  ioctlsocket(made.Get(), static_cast<long>(FIONBIO), &nonBlocking);
  if (connect(made.Get(), address.ai_addr, static_cast<int>(address.ai_addrlen)) == 0) {
    return 0;
  }
  if (WSAGetLastError() != WSAEWOULDBLOCK) {
    return WSAGetLastError();
  }
  fd_set done{1, {made.Get()}};
  fd_set failed{1, {made.Get()}};
  timeval patience{kPatience / 1000, 0};
  if (select(0, nullptr, &done, &failed, &patience) <= 0) {
    return WSAETIMEDOUT;
  }
  int error = 0;
  int size = sizeof(error);
  getsockopt(made.Get(), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
  return error;
}

bool CheckConnection(const HttpTarget& target, std::vector<Finding>& findings) {
  const kiosk::win32::Winsock winsock;
  ADDRINFOW hints{};
  hints.ai_socktype = SOCK_STREAM;
  kiosk::win32::AddressList list;
  const int error = GetAddrInfoW(target.host.c_str(), std::to_wstring(target.port).c_str(), &hints, list.Put());
  if (error != 0) {
    findings.push_back(Bad("portal name",
                           ToNarrow(target.host) + " is not found" + ErrorText(static_cast<unsigned long>(error)),
                           "Is the cable in? Does this computer's DNS server know the name?"));
    return false;
  }
  std::string addresses;
  int last = 0;
  std::string reached;
  for (const ADDRINFOW* each = list.Get(); each != nullptr && reached.empty(); each = each->ai_next) {
    addresses += (addresses.empty() ? "" : ", ") + AddressOf(*each);
    last = Connect(*each);
    reached = last == 0 ? AddressOf(*each) : "";
  }
  findings.push_back(Good("portal name", ToNarrow(target.host) + " is " + addresses));
  const std::string port = "port " + std::to_string(target.port);
  findings.push_back(!reached.empty()
                         ? Good("portal TCP", reached + " takes connections on " + port)
                         : Bad("portal TCP", "no connection to " + port + ErrorText(static_cast<unsigned long>(last)),
                               "Is the portal running? Does a firewall let this computer out to it?"));
  return !reached.empty();
}

std::string HttpAdvice(DWORD error) {
  switch (error) {
    case ERROR_WINHTTP_SECURE_FAILURE:
      return "Windows does not trust the portal's certificate: is its authority among the computer's trusted roots,"
             " does it name this host, is the clock right?";
    case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
      return "The portal and this computer do not come to terms over TLS: does the portal offer version 1.2, is its"
             " certificate in order?";
    case ERROR_WINHTTP_TIMEOUT:
      return "The portal takes connections and does not answer: look at the portal, or at what inspects the traffic.";
    case ERROR_WINHTTP_NAME_NOT_RESOLVED:
    case ERROR_WINHTTP_CANNOT_CONNECT:
      return "Is the proxy in use the right one?";
    default:
      return "Something between this computer and the portal breaks the connection.";
  }
}

// Seconds by which this computer's clock is ahead of the portal's Date.
std::int64_t SecondsAhead(const SYSTEMTIME& portal) {
  FILETIME time{};
  SystemTimeToFileTime(&portal, &time);
  return (static_cast<std::int64_t>(kiosk::win32::FileTimeNow()) -
          static_cast<std::int64_t>(kiosk::win32::FileTimeValue(time))) /
         10'000'000;
}

void CheckHttp(const HttpTarget& target, std::vector<Finding>& findings) {
  const HttpHandle session(WinHttpOpen(ToWide(std::string(kProgram) + "/" + kiosk::log::kVersion).c_str(),
                                       WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, nullptr, nullptr, 0));
  WinHttpSetTimeouts(session.Get(), kPatience, kPatience, kPatience, kPatience);
  const HttpHandle connection(session ? WinHttpConnect(session.Get(), target.host.c_str(), target.port, 0) : nullptr);
  const HttpHandle request(connection ? WinHttpOpenRequest(connection.Get(), L"GET", target.path.c_str(), nullptr,
                                                           nullptr, nullptr, target.secure ? WINHTTP_FLAG_SECURE : 0)
                                      : nullptr);
  DWORD limit = kPatience;
  DWORD never = WINHTTP_OPTION_REDIRECT_POLICY_NEVER;
  const bool answered =
      request && WinHttpSetOption(request.Get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &limit, sizeof(limit)) != 0 &&
      WinHttpSetOption(request.Get(), WINHTTP_OPTION_REDIRECT_POLICY, &never, sizeof(never)) != 0 &&
      WinHttpSendRequest(request.Get(), nullptr, 0, nullptr, 0, 0, 0) != 0 &&
      WinHttpReceiveResponse(request.Get(), nullptr) != 0;
  const char* const what = target.secure ? "portal TLS" : "portal HTTP";
  if (!answered) {
    const DWORD error = GetLastError();
    findings.push_back(Bad(what, "no answer (WinHTTP error " + std::to_string(error) + ")", HttpAdvice(error)));
    return;
  }
  DWORD status = 0;
  DWORD size = sizeof(status);
  WinHttpQueryHeaders(request.Get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status, &size,
                      nullptr);
  findings.push_back(status == HTTP_STATUS_PROXY_AUTH_REQ
                         ? Bad(what, "the proxy wants somebody to sign in (407)",
                               "Let the proxy pass the portal's address without signing in.")
                     : status >= HTTP_STATUS_SERVER_ERROR
                         ? Bad(what, "the portal answers " + std::to_string(status), "Look at the portal.")
                         : Good(what, "the portal answers (status " + std::to_string(status) + ")"));
  SYSTEMTIME date{};
  size = sizeof(date);
  if (WinHttpQueryHeaders(request.Get(), WINHTTP_QUERY_DATE | WINHTTP_QUERY_FLAG_SYSTEMTIME, nullptr, &date, &size,
                          nullptr) == 0) {
    return;
  }
  const std::int64_t ahead = SecondsAhead(date);
  const std::string told =
      std::to_string(std::abs(ahead)) + " s " + (ahead < 0 ? "behind" : "ahead of") + " the portal's";
  findings.push_back(std::abs(ahead) <= kMostSkew
                         ? Good("clock", told)
                         : Bad("clock", told, "Set the clock: w32tm /resync, or \"time.sync\" at the terminal."));
}

}  // namespace

std::string ProxyText() {
  WINHTTP_PROXY_INFO info{};
  if (WinHttpGetDefaultProxyConfiguration(&info) == 0) {
    return "unknown" + ErrorText(GetLastError());
  }
  const kiosk::win32::GlobalText proxy(info.lpszProxy);
  const kiosk::win32::GlobalText bypass(info.lpszProxyBypass);
  return (proxy ? ToNarrow(proxy.Get()) : "none") + (bypass ? ", not for " + ToNarrow(bypass.Get()) : "");
}

std::vector<Finding> CheckPortal() {
  const std::string proxy = ProxyText();
  std::vector<Finding> findings{Good("proxy", proxy)};
  const std::wstring url = kiosk::enrolment::PortalUrl();
  HttpTarget target;
  if (!kiosk::win32::CrackHttpUrl(url + L"/", target)) {
    findings.push_back(Bad("portal", "\"" + ToNarrow(url) + "\" is no http or https address",
                           "Set AuthBaseUrl, in group policy or in the state key."));
    return findings;
  }
  findings.push_back(Good("portal", ToNarrow(url)));
  // Behind a proxy it is the proxy that looks for the portal.
  if (proxy != "none" || CheckConnection(target, findings)) {
    CheckHttp(target, findings);
  }
  return findings;
}

}  // namespace kioskctl
