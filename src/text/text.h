// Small text routines without Windows, shared by everything that handles text from outside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kiosk::text {

// White space as C's isspace sees it in the C locale: blank, \t, \n, \v, \f, \r.
constexpr bool IsSpace(char byte) noexcept { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

// A letter from A to Z as a small one; anything else, letters beyond ASCII included, as it is.
template <typename Character>
constexpr Character AsciiLower(Character character) noexcept {
  return character >= 'A' && character <= 'Z' ? static_cast<Character>(character - 'A' + 'a') : character;
}

constexpr bool IsDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

// A digit of numbers as this program writes them.
constexpr bool IsLowerHexDigit(char byte) noexcept { return IsDigit(byte) || (byte >= 'a' && byte <= 'f'); }

// The value of a hexadecimal digit of either case; -1 for anything else.
template <typename Character>
constexpr int HexDigit(Character character) noexcept {
  const Character lower = AsciiLower(character);
  return lower >= '0' && lower <= '9' ? lower - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Appends the byte as two lower-case hexadecimal digits.
void AppendHex(std::string& out, unsigned char byte);

// All of them so. The text is allocated once: no outgrown copy of a secret stays behind.
std::string Hex(std::span<const std::uint8_t> bytes);

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
