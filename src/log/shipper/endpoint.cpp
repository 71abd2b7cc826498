#include "log/shipper/endpoint.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/random.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <span>

namespace kiosk::log::shipper {
namespace {

constexpr std::uint64_t kLongestRetryAfter = 3'600'000;
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

// Seconds, or a date (RFC 9110, 10.2.3); 0 for anything else.
std::uint64_t ParseRetryAfter(const std::wstring& text) noexcept {
  if (text.empty()) {
    return 0;
  }
  if (text.find_first_not_of(L"0123456789") == std::wstring::npos) {
    return text.size() > 9 ? kLongestRetryAfter
                           : std::min<std::uint64_t>(std::stoul(text) * 1000ULL, kLongestRetryAfter);
  }
  // "Sun, 06 Nov 1994 08:49:37 GMT", the one form that servers may send. Anything else is refused here: the call below
  // may answer it with the present time.
  constexpr std::size_t kDateLength = 29;
  if (text.size() != kDateLength || text[3] != L',' || !text.ends_with(L" GMT")) {
    return 0;
  }
  SYSTEMTIME parts{};
  FILETIME time{};
  if (WinHttpTimeToSystemTime(text.c_str(), &parts) == 0 || SystemTimeToFileTime(&parts, &time) == 0) {
    return 0;
  }
  const std::uint64_t until = win32::FileTimeValue(time);
  const std::uint64_t now = win32::FileTimeNow();
  return until <= now ? 0 : std::min((until - now) / win32::kFileTimeMillisecond, kLongestRetryAfter);
}

Outcome OutcomeOf(const win32::HttpAnswer& answer) {
  if (answer.failedAt != win32::HttpStep::kDone) {
    return {.error = answer.error};
  }
  return {.verdict = Judge(answer.status), .status = answer.status, .retryAfter = ParseRetryAfter(answer.retryAfter)};
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
