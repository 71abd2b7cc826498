// The one function through which the service talks to the portal's authentication service.
#pragma once

#include "text/secret.h"
#include "win32/winapi.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kiosk::enrolment {

// The portal's base URL: that of group policy, of the state key, or the one that was built in. Without trailing
// slashes.
std::wstring PortalUrl();

struct AuthReply {
  std::int32_t answered = 0;  // 1 once a response with a status line arrived and the call was not cut short
  std::int32_t status = 0;    // the HTTP status; 0 while not answered
  text::Secret body;          // as received; may hold a token or a password
  std::string error;          // why there was no answer; empty otherwise
};

// Most body bytes of an API reply before reading stops.
inline constexpr std::size_t kApiBodyLimit = 65536;
inline constexpr wchar_t kAcceptJson[] = L"application/json";
inline constexpr wchar_t kAcceptImage[] = L"image/*";
// Milliseconds that one whole API call may take, whatever the server does.
inline constexpr std::uint32_t kApiDeadline = 60'000;

// Sends one request and reads its answer. `path` begins with "/" (UTF-8) and follows the base URL; an empty `body` or
// `bearerToken` is left out. Redirects are never followed, so the token goes to no other place. A body of more than
// `maxBody` bytes is not read to its end and counts as empty.
//
// Never throws for a network failure and never logs one. Any answer proves the changes of network adapters from before
// the request (network/trial.h). The error texts: "unparseable AuthBaseUrl", "WinHttpOpen failed",
// "cannot open the request", and "WinHTTP error N", where 12002 also stands for a call that used up `deadline` and
// 12017 for one that a service stop, or the event `end` (manual reset), ended; no call begins after a stop, and it ends
// one at once. A reply that had come whole is never thrown away for the deadline or the events.
AuthReply AuthRequest(const wchar_t* method, const std::string& path, const std::string& body,
                      const std::string& bearerToken, std::size_t maxBody, const wchar_t* accept,
                      std::uint32_t deadline = kApiDeadline, HANDLE end = nullptr);

}  // namespace kiosk::enrolment
