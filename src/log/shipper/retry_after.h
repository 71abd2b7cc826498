// How long a server wants to be left alone. No Windows header.
#pragma once

#include <cstdint>
#include <string_view>

namespace kiosk::log::shipper {

// The milliseconds from `now` (since 1970, UTC) that a header Retry-After asks for, at most an hour: seconds, or a date
// in the one form that servers may send, "Sun, 06 Nov 1994 08:49:37 GMT" (RFC 9110, 10.2.3), whose day of the week is
// not looked at. 0 for anything else and for a date that has passed.
std::uint64_t ParseRetryAfter(std::wstring_view text, std::uint64_t now) noexcept;

}  // namespace kiosk::log::shipper
