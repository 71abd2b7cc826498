// The shipper's requests: its own WinHTTP session, and what an answer means for the records that were sent.
#pragma once

#include "win32/http_call.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

enum class Verdict {
  kSent,
  kRetry,    // no answer, 408, 429, 5xx: again soon
  kWait,     // 401, 403, 404, 407, 421, 425, 451, a redirect: somebody has to put something right first
  kRefused,  // any other 4xx: never again as it is
};

struct Outcome {
  Verdict verdict = Verdict::kRetry;
  DWORD status = 0;              // 0: no answer
  DWORD error = 0;               // of a request without an answer
  std::uint64_t retryAfter = 0;  // ms that the server asked for, at most an hour

  // "WinHTTP error 12029" or "HTTP status 503".
  [[nodiscard]] std::string Text() const;
};

class Endpoint {
 public:
  // `stop` ends a request that runs; none begins after it.
  explicit Endpoint(HANDLE stop) noexcept : stop_(stop) {}

  // Posts the records (JSON objects, separated by line feeds).
  Outcome Post(const win32::HttpTarget& target, const CERT_CONTEXT* certificate, std::string_view records);

  // Status and error as for a post. Appends the reply's body to `body`, whatever the status: at most `limit` bytes and
  // a chunk.
  Outcome Get(const win32::HttpTarget& target, const CERT_CONTEXT* certificate, std::size_t limit, std::string& body);

  // Closes the session; the next request opens another.
  void Close() noexcept { session_.Reset(); }

 private:
  win32::HttpAnswer Call(win32::HttpCall call);

  HANDLE stop_;
  win32::HttpHandle session_;
};

// The waits between tries: up to 1 s, 2 s, 4 s ... 300 s, each drawn evenly from its whole range, so that terminals
// which an outage brought into step fall out of it again.
class Backoff {
 public:
  static constexpr std::uint64_t kLongest = 300'000;

  std::uint64_t Next() noexcept;  // ms
  void Reset() noexcept { range_ = kFirst; }

 private:
  static constexpr std::uint64_t kFirst = 1000;
  std::uint64_t range_ = kFirst;
};

// Any number from 0 to `most`.
std::uint64_t RandomUpTo(std::uint64_t most) noexcept;

// Up to a quarter longer than `wait`: what tells many terminals the same time must not bring them all back at once.
std::uint64_t Spread(std::uint64_t wait) noexcept;

}  // namespace kiosk::log::shipper
