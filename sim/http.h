// A portal in script behind WinHTTP, for tests in virtual time. While a ScriptedPortal exists the WinHTTP calls of the
// service are answered from it, without a network and with the contract of WinHTTP checked: order of calls, kinds of
// handles, sizes of options, use after closing, one operation of a request at a time, what must stay as it is until the
// callback. Synchronous use is a violation.
#pragma once

#include "win32/winapi.h"

#include <winhttp.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace sim {

struct Request {
  std::uint64_t at = 0;  // ms of virtual time when it was sent
  std::wstring method, host, path, headers, userAgent;
  INTERNET_PORT port = 0;
  DWORD accessType = 0;  // of WinHttpOpen
  DWORD flags = 0;       // of WinHttpOpenRequest
  std::string body;
  int resolveTimeout = 0, connectTimeout = 60'000, sendTimeout = 30'000, receiveTimeout = 30'000;
  std::map<DWORD, std::string> options;  // as they stood when it was sent, bytes as given

  // An option that is a number; `missing` where it was not set.
  [[nodiscard]] DWORD Number(DWORD option, DWORD missing) const;
};

struct Response {
  DWORD status = 200;
  std::string body = {};
  std::wstring retryAfter = {};  // that header; empty: none
  std::size_t chunk = 8192;      // bytes that become available at a time
  // Virtual milliseconds before the phase is over, INFINITE: it never is. The time-outs of the request apply (12002).
  DWORD connectDelay = 0, headersDelay = 0, chunkDelay = 0, readDelay = 0;
  DWORD deadAddresses = 0;  // of the host's addresses, the first ones, to which nobody can connect
  // Windows errors at the end of the phase, 0 for none: WinHttpSendRequest, WinHttpReceiveResponse, and after the body.
  DWORD sendError = 0, receiveError = 0, bodyError = 0;
};

class ScriptedPortal {
 public:
  using Handler = std::function<Response(const Request&)>;

  ScriptedPortal();
  ScriptedPortal(const ScriptedPortal&) = delete;
  ScriptedPortal& operator=(const ScriptedPortal&) = delete;
  ~ScriptedPortal();

  // Answers a method and path (query aside); the latest script for both holds. Anything else gets 404. The handler
  // runs on the thread that sends.
  void On(const std::wstring& method, const std::wstring& path, Handler handler);
  void On(const std::wstring& method, const std::wstring& path, const Response& response) {
    On(method, path, [response](const Request&) { return response; });
  }
  // WinHttpSetOption fails for this one from now on.
  void RefuseOption(DWORD option);
  // All requests so far, those of failed connections included.
  [[nodiscard]] std::vector<Request> Requests() const;
  static void ForgetRequests();  // which would be the memory of a long life
  // The seconds of virtual time at which they were sent.
  [[nodiscard]] std::vector<std::uint64_t> Seconds() const;
};

// Scripted handles that are not closed yet.
int OpenHttpHandles();

}  // namespace sim
