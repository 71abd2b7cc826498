// One HTTP call with synchronous WinHTTP, as every part of the program that talks to a server makes it: nothing is kept
// between calls, nothing is followed, each phase and the whole call have a bound, and an event ends it from outside.
#pragma once

#include "win32/http_handle.h"

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

// A session with this program's time-outs: 15 s for each phase, the wait for the response headers included. Invalid when
// WinHTTP refuses. One session may serve any number of calls of one thread.
HttpHandle OpenHttpSession(const std::wstring& userAgent) noexcept;

struct HttpCall {
  const wchar_t* method = L"GET";
  const HttpTarget* target = nullptr;
  std::wstring_view headers = {};  // each with its CR LF
  std::string_view body = {};
  const CERT_CONTEXT* certificate = nullptr;  // presented when the server asks for one; null: none ever is
  HANDLE stop = nullptr;                      // event that ends the call; null: nothing does
  const std::function<bool()>* goOn = nullptr;  // asked before each phase and each chunk; false ends the call as a stop does
  std::uint32_t deadline = 60'000;            // ms for the whole call
  std::size_t maxBody = 0;                    // reading ends after the chunk that exceeds it
  std::function<void(std::string_view)> onBody = {};  // gets the reply's body; each chunk is zeroed afterwards
};

enum class HttpStep { kDone, kOpen, kExchange };

struct HttpAnswer {
  HttpStep failedAt = HttpStep::kDone;
  DWORD error = ERROR_SUCCESS;  // of the failed step; 12002 also for the deadline, 12017 for the stop
  DWORD status = 0;             // the HTTP status when nothing failed
  std::wstring retryAfter = {};  // that header; empty when absent
};

// Sends the request and reads the answer. Redirects are answers like any other; no cookie is kept, this computer's account
// is never presented, the connection is not used again, and a server's certificate is always checked. A body that had come
// whole is never thrown away for the deadline or the stop. No call begins once the stop event is set; under it a call that
// runs returns at once, at the worst within one phase (15 s).
HttpAnswer CallHttp(HINTERNET session, const HttpCall& call);

}  // namespace kiosk::win32
