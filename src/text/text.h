// Small text routines without Windows, shared by everything that handles text from outside.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kiosk::text {

// White space as C's isspace sees it in the C locale: blank, \t, \n, \v, \f, \r.
constexpr bool IsSpace(char byte) noexcept { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

// Without leading and trailing white space.
std::string_view TrimSpace(std::string_view text) noexcept;

// Length of the well-formed UTF-8 sequence that `text`, which is not empty, begins with (RFC 3629: no overlong forms,
// no surrogates, nothing above U+10FFFF); 0 when there is none.
std::size_t SequenceLength(std::string_view text) noexcept;

// The longest length of at most `limit` bytes at which `text` can be cut without splitting a UTF-8 sequence. Bytes that
// are no UTF-8 count as characters of their own.
std::size_t CutLength(std::string_view text, std::size_t limit) noexcept;

// Overwrites everything that could end or disturb a line with blanks: control bytes, DEL, the C1 controls, and the line
// and paragraph separators U+2028 and U+2029; and each byte that is no UTF-8 with "?". The length stays.
void MakeSingleLine(char* text, std::size_t length) noexcept;

// Overwrites the characters with zeros that no optimiser removes, then empties the text.
void Wipe(std::string& text) noexcept;

}  // namespace kiosk::text
