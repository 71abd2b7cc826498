#include "log/shipper/endpoint.h"

#include "log/log.h"
#include "log/shipper/retry_after.h"
#include "win32/clock.h"
#include "win32/random.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <span>

namespace kiosk::log::shipper {
namespace {

constexpr std::wstring_view kPostHeaders = L"Content-Type: application/json\r\n";
constexpr std::wstring_view kGetHeaders = L"Accept: application/json\r\n";

// Of the 4xx only these say nothing about the records.
constexpr DWORD kRetried[] = {408, 429};
constexpr DWORD kWaitedFor[] = {401, 403, 404, 407, 421, 425, 451};

bool IsOneOf(std::span<const DWORD> statuses, DWORD status) noexcept {
  return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
}

Verdict Judge(DWORD status) noexcept {
  if (status >= 200 && status < 300) {
    return Verdict::kSent;
  }
  if (status >= 500 || IsOneOf(kRetried, status)) {
    return Verdict::kRetry;
  }
  return status < 400 || IsOneOf(kWaitedFor, status) ? Verdict::kWait : Verdict::kRefused;
}

Outcome OutcomeOf(const win32::HttpAnswer& answer) {
  if (answer.failedAt != win32::HttpStep::kDone) {
    return {.error = answer.error};
  }
  return {.verdict = Judge(answer.status),
          .status = answer.status,
          .retryAfter = ParseRetryAfter(answer.retryAfter, win32::UnixMilliseconds(win32::FileTimeNow()))};
}

}  // namespace

std::string Outcome::Text() const {
  return status == 0 ? "WinHTTP error " + std::to_string(error) : "HTTP status " + std::to_string(status);
}

win32::HttpAnswer Endpoint::Call(win32::HttpCall call) {
  if (!session_) {
    session_ = win32::OpenHttpSession(L"NorvaneKiosk/" + win32::ToWide(kVersion));
  }
  if (!session_) {
    return {.failedAt = win32::HttpStep::kOpen, .error = GetLastError()};
  }
  call.stop = stop_;
  return win32::CallHttp(session_.Get(), call);
}

Outcome Endpoint::Post(const win32::HttpTarget& target, const CERT_CONTEXT* certificate, std::string_view records) {
  return OutcomeOf(Call(
      {.method = L"POST", .target = &target, .headers = kPostHeaders, .body = records, .certificate = certificate}));
}

Outcome Endpoint::Get(const win32::HttpTarget& target, const CERT_CONTEXT* certificate, std::size_t limit,
                      std::string& body) {
  const win32::HttpAnswer answer = Call({.target = &target,
                                         .headers = kGetHeaders,
                                         .certificate = certificate,
                                         .maxBody = limit,
                                         .onBody = [&body](std::string_view chunk) { body.append(chunk); }});
  return OutcomeOf(answer);
}

std::uint64_t RandomUpTo(std::uint64_t most) noexcept {
  std::uint64_t number = 0;
  return win32::FillRandom(&number, sizeof(number)) ? number % (most + 1) : most / 2;
}

std::uint64_t Spread(std::uint64_t wait) noexcept { return wait + RandomUpTo(wait / 4); }

std::uint64_t Backoff::Next() noexcept {
  const std::uint64_t range = range_;
  range_ = std::min(range_ * 2, kLongest);
  return RandomUpTo(range);
}

}  // namespace kiosk::log::shipper
