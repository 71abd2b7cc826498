// Between the program's UTF-8 and the UTF-16 of Windows.
#pragma once

#include <string>
#include <string_view>

namespace kiosk::win32 {

// UTF-8 to UTF-16 and back. Invalid sequences become U+FFFD. Empty in, empty out.
std::wstring ToWide(std::string_view text);
std::string ToNarrow(std::wstring_view text);

// Ordinal comparison without regard to letter case, as Windows compares names of accounts and SID texts.
bool EqualIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept;

}  // namespace kiosk::win32
