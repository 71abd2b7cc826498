#include "log/shipper/retry_after.h"

#include <algorithm>
#include <chrono>
#include <optional>

namespace kiosk::log::shipper {
namespace {

constexpr std::uint64_t kLongest = 3'600'000;

bool IsDigit(wchar_t c) noexcept { return c >= L'0' && c <= L'9'; }

// Of digits alone; what is beyond 100,000,000 is that.
unsigned Number(std::wstring_view digits) noexcept {
  unsigned number = 0;
  for (const wchar_t digit : digits) {
    number = std::min(number * 10 + static_cast<unsigned>(digit - L'0'), 100'000'000U);
  }
  return number;
}

// Milliseconds since 1970; empty for what is no date since then.
std::optional<std::uint64_t> ParseDate(std::wstring_view text) noexcept {
  constexpr std::wstring_view kForm = L"***, 00 *** 0000 00:00:00 GMT";
  const auto fits = [](wchar_t c, wchar_t form) { return form == L'0' ? IsDigit(c) : form == L'*' || form == c; };
  if (!std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), fits)) {
    return std::nullopt;
  }
  // A blank after each name, so that no name is found across two others.
  constexpr std::wstring_view kMonths = L"Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec ";
  const std::size_t month = kMonths.find(text.substr(8, 4));
  const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(Number(text.substr(12, 4)))),
                                         std::chrono::month(static_cast<unsigned>(month / 4) + 1),
                                         std::chrono::day(Number(text.substr(5, 2))));
  const unsigned hour = Number(text.substr(17, 2));
  const unsigned minute = Number(text.substr(20, 2));
  const unsigned second = Number(text.substr(23, 2));
  if (month == std::wstring_view::npos || !date.ok() || date.year() < std::chrono::year(1970) || hour > 23 ||
      minute > 59 || second > 59) {
    return std::nullopt;
  }
  const auto days = static_cast<std::uint64_t>(std::chrono::sys_days(date).time_since_epoch().count());
  return (((days * 24 + hour) * 60 + minute) * 60 + second) * 1000;
}

}  // namespace

std::uint64_t ParseRetryAfter(std::wstring_view text, std::uint64_t now) noexcept {
  if (std::all_of(text.begin(), text.end(), IsDigit)) {
    return std::min(Number(text) * std::uint64_t{1000}, kLongest);
  }
  const std::uint64_t until = ParseDate(text).value_or(0);
  return until <= now ? 0 : std::min(until - now, kLongest);
}

}  // namespace kiosk::log::shipper
