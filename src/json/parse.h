#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "json/value.h"

namespace kiosk::json {

inline constexpr int kMaxDepth = 64;

// Parses a text that holds exactly one value, with blanks, tabs, line feeds and carriage returns around it.
//
// Taken beyond RFC 8259: any run of digits and "+-.eE" that strtod finds a number in front of or makes 0 of ("1-2" is
// 1, "-" is 0); raw control bytes and bytes that are no UTF-8 inside strings; escapes of lone surrogates, which become
// three-byte sequences. A number beyond the range of a double is an infinity: whoever takes a number over keeps it in
// range. Refused though well formed: more than kMaxDepth levels ("nesting too deep"). A repeated key keeps its first
// place and takes the last value.
//
// On failure `error`, unless null, gets "<message> at offset <N>", N being the byte where the problem was found (the
// end of the text where something is missing). With a null `error` no text is built. What was read of a refused text is
// wiped, since it may be the first half of a request that holds a password.
std::optional<Value> Parse(std::string_view text, std::string* error = nullptr);

// For texts out of the state: empty also when there is an infinity in it, which could not be written back as JSON.
std::optional<Value> ParseStored(std::string_view text);

}  // namespace kiosk::json
