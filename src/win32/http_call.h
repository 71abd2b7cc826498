// One HTTP call, as every part of the program that talks to a server makes it: nothing is kept between calls, nothing
// is followed, each phase and the whole call have a bound, and an event ends it from outside. The function blocks;
// WinHTTP below it is asynchronous, since a synchronous request must not be closed under the call that waits on it.
#pragma once

#include "win32/owners.h"

#include <wincrypt.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace kiosk::win32 {

struct HttpTarget {
  std::wstring host;
  std::wstring path;
  INTERNET_PORT port = 0;
  bool secure = false;
};

// Splits an http or https URL. False for anything else, and for one without a host.
bool CrackHttpUrl(const std::wstring& url, HttpTarget& target);

// An asynchronous session with this program's time-outs: 15 s for each phase, the wait for the response headers
// included. Invalid when WinHTTP refuses. One session may serve any number of calls.
HttpHandle OpenHttpSession(const std::wstring& userAgent) noexcept;

struct HttpCall {
  const wchar_t* method = L"GET";
  const HttpTarget* target = nullptr;
  std::wstring_view headers = {};  // each with its CR LF
  std::string_view body = {};
  const CERT_CONTEXT* certificate = nullptr;  // presented when the server asks for one; null: none ever is
  HANDLE stop = nullptr;                      // events that end the call (manual reset); null: nothing does
  HANDLE end = nullptr;
  std::uint32_t deadline = 60'000;                    // ms for the whole call
  std::size_t maxBody = 0;                            // reading ends after the chunk that exceeds it
  std::function<void(std::string_view)> onBody = {};  // gets the reply's body; each chunk is zeroed afterwards
};

enum class HttpStep { kDone, kOpen, kExchange };

struct HttpAnswer {
  HttpStep failedAt = HttpStep::kDone;
  DWORD error = ERROR_SUCCESS;   // of the failed step; 12002 also for the deadline, 12017 for the events
  DWORD status = 0;              // the HTTP status when nothing failed
  std::wstring retryAfter = {};  // that header; empty when absent
};

// Sends the request and reads the answer. Redirects are answers like any other (where Windows cannot be told so, the
// call fails at kOpen); no cookie is kept, this computer's account is never presented, the connection is not used
// again, and a server's certificate is always checked. No call begins once one of the events is set; one that runs
// returns at once, at the latest when its deadline has passed. A body that had come whole by then is the answer all the
// same.
HttpAnswer CallHttp(HINTERNET session, const HttpCall& call);

}  // namespace kiosk::win32
