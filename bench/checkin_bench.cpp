// A whole check-in of an enrolled terminal against the same request made with bare WinHTTP, both to the portal that the
// terminal is paired with; and what of it the HTTP call and the token take.
#include "bench/bench.h"
#include "enrolment/auth_client.h"
#include "enrolment/device_token.h"
#include "portal/check_in.h"
#include "win32/http_call.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <array>
#include <cstdlib>
#include <string>

namespace {

using kiosk::win32::HttpHandle;

constexpr char kBody[] = R"({"appVersion":"0"})";

[[noreturn]] void Fail(const char* what) {
  std::puts(what);
  std::exit(1);
}

// What a check-in cannot do without: a session, a connection and a request of its own, the answer read to its end. The
// connection is not kept: Windows would close it with its session, Wine would lend it to the next request.
void BareRequest(const kiosk::win32::HttpTarget& portal, const std::wstring& headers) {
  const HttpHandle session(WinHttpOpen(L"bench", WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, nullptr, nullptr, 0));
  const HttpHandle connection(WinHttpConnect(session.Get(), portal.host.c_str(), portal.port, 0));
  const HttpHandle request(WinHttpOpenRequest(connection.Get(), L"POST", (portal.path + L"/api/kiosk/check-in").c_str(),
                                              nullptr, nullptr, nullptr, portal.secure ? WINHTTP_FLAG_SECURE : 0));
  DWORD notKept = WINHTTP_DISABLE_KEEP_ALIVE;
  WinHttpSetOption(request.Get(), WINHTTP_OPTION_DISABLE_FEATURE, &notKept, sizeof(notKept));
  std::string body = kBody;
  std::array<char, 8192> chunk;
  DWORD read = 0;
  DWORD total = 0;
  if (WinHttpSendRequest(request.Get(), headers.c_str(), static_cast<DWORD>(headers.size()), body.data(),
                         static_cast<DWORD>(body.size()), static_cast<DWORD>(body.size()), 0) == 0 ||
      WinHttpReceiveResponse(request.Get(), nullptr) == 0) {
    Fail("the bare request failed");
  }
  while (WinHttpReadData(request.Get(), chunk.data(), chunk.size(), &read) != 0 && read != 0) {
    total += read;
  }
  if (total == 0) {
    Fail("the bare request got no answer");
  }
}

}  // namespace

int main() {
  kiosk::win32::CreateStopEvent();
  kiosk::win32::HttpTarget portal;
  const std::string token(kiosk::enrolment::ReadDeviceToken().Get());
  if (token.empty() || !kiosk::win32::CrackHttpUrl(kiosk::enrolment::PortalUrl(), portal)) {
    Fail("this terminal is not paired");
  }
  const std::wstring headers =
      L"Content-Type: application/json\r\nAuthorization: Bearer " + kiosk::win32::ToWide(token) + L"\r\n";
  const auto times = kiosk::bench::Measure(
      9, 20,
      {[&] {
         if (!kiosk::portal::CheckIn(token).error.empty()) {
           Fail("a check-in failed");
         }
       },
       [&] { BareRequest(portal, headers); },
       [&] {
         if (kiosk::enrolment::AuthRequest(L"POST", "/api/kiosk/check-in", kBody, token,
                                           kiosk::enrolment::kApiBodyLimit, kiosk::enrolment::kAcceptJson)
                 .status != 200) {
           Fail("a call to the portal failed");
         }
       },
       [&] { kiosk::bench::Keep(kiosk::enrolment::ReadDeviceToken()); }});
  kiosk::bench::Row("check-in", times[0], {"bare WinHTTP", times[1]}, kiosk::bench::TimesWorse(1.2));
  (void)std::printf("Of a check-in the HTTP call takes %s, opening the token with DPAPI %s.\n",
                    kiosk::bench::Text(times[2]).c_str(), kiosk::bench::Text(times[3]).c_str());
  return 0;
}
