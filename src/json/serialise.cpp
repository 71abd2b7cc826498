#include "json/serialise.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "json/number_text.h"
#include "text/text.h"

namespace kiosk::json {
namespace {

// What follows the backslash in the two-character escape of a byte; 0 where there is none.
char ShortEscape(unsigned char byte) {
  switch (byte) {
    case '"':
    case '\\':
      return static_cast<char>(byte);
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

void AppendEscaped(std::string& out, unsigned char byte) {
  if (const char shortEscape = ShortEscape(byte); shortEscape != 0) {
    out += '\\';
    out += shortEscape;
  } else {
    out += "\\u00";
    text::AppendHex(out, byte);
  }
}

bool NeedsEscape(unsigned char byte) { return byte < 0x20 || byte == '"' || byte == '\\'; }

// Whether any of eight bytes needs an escape: a byte b is below n when b - n borrows and b has no top bit.
bool AnyNeedsEscape(const char* bytes) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof(word));
  const auto below = [](std::uint64_t value, std::uint64_t limit) { return (value - kOnes * limit) & ~value; };
  return ((below(word, 0x20) | below(word ^ (kOnes * '"'), 1) | below(word ^ (kOnes * '\\'), 1)) & (kOnes * 0x80)) != 0;
}

// The first position from `start` on whose byte needs an escape, or the end.
std::size_t PlainEnd(std::string_view text, std::size_t start) {
  while (start + sizeof(std::uint64_t) <= text.size() && !AnyNeedsEscape(text.data() + start)) {
    start += sizeof(std::uint64_t);
  }
  while (start < text.size() && !NeedsEscape(static_cast<unsigned char>(text[start]))) {
    ++start;
  }
  return start;
}

void AppendText(std::string& out, std::string_view text) {
  out += '"';
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = PlainEnd(text, start);
    out.append(text, start, end - start);
    if (end == text.size()) {
      break;
    }
    AppendEscaped(out, static_cast<unsigned char>(text[end]));
    start = end + 1;
  }
  out += '"';
}

void AppendValue(std::string& out, const Value& value);

void AppendArray(std::string& out, const std::vector<Value>& items) {
  char before = '[';
  for (const Value& item : items) {
    out += before;
    AppendValue(out, item);
    before = ',';
  }
  out += items.empty() ? "[]" : "]";
}

void AppendObject(std::string& out, const Value& object) {
  const std::vector<std::string>& keys = object.keys();
  const std::vector<Value>& values = object.values();
  char before = '{';
  for (std::size_t i = 0; i < keys.size(); ++i) {
    out += before;
    AppendText(out, keys[i]);
    out += ':';
    AppendValue(out, values[i]);
    before = ',';
  }
  out += keys.empty() ? "{}" : "}";
}

void AppendValue(std::string& out, const Value& value) {
  switch (value.kind()) {
    case Kind::kNull:
      out += "null";
      break;
    case Kind::kBool:
      out += value.boolean() ? "true" : "false";
      break;
    case Kind::kNumber:
      AppendNumber(out, value.number());
      break;
    case Kind::kString:
      AppendText(out, value.text());
      break;
    case Kind::kArray:
      AppendArray(out, value.items());
      break;
    case Kind::kObject:
      AppendObject(out, value);
      break;
  }
}

// Room for the text of a value unless it holds many escapes: one allocation then serves, and no outgrown copy of a
// secret stays behind in memory.
std::size_t RoughSize(const Value& value) {
  constexpr std::size_t kScalar = 12;
  std::size_t size = kScalar;
  if (value.IsString()) {
    size += value.text().size();
  }
  for (const Value& item : value.items()) {
    size += RoughSize(item);
  }
  for (std::size_t i = 0; i < value.keys().size(); ++i) {
    size += value.keys()[i].size() + 4 + RoughSize(value.values()[i]);
  }
  return size;
}

// "%g" of the common broken numbers, as snprintf costs more than all the rest of a document. Returns false, having
// written nothing, outside 0.001 to 999999 and where the sixth digit is too close to a tie for this arithmetic.
bool AppendShortFraction(std::string& out, double number) {
  const double magnitude = std::fabs(number);
  if (!(magnitude >= 0.001 && magnitude < 999999.0)) {
    return false;
  }
  int decimals = 8;  // what six significant digits leave behind the point
  double limit = 0.01;
  while (magnitude >= limit) {
    limit *= 10;
    --decimals;
  }
  constexpr std::uint32_t kPowers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
  // The factor is exact and the product below 10^6, so it is off by less than 10^-10.
  const double scaled = magnitude * kPowers[decimals];
  auto digits = static_cast<std::uint32_t>(scaled);
  const double rest = scaled - digits;
  if (std::fabs(rest - 0.5) < 1e-6) {
    return false;
  }
  digits += rest > 0.5 ? 1 : 0;
  for (; decimals > 0 && digits % 10 == 0; --decimals) {
    digits /= 10;
  }
  char buffer[24];
  char* end = buffer;
  if (number < 0) {
    *end++ = '-';
  }
  end = std::to_chars(end, buffer + sizeof(buffer), digits / kPowers[decimals]).ptr;
  if (decimals > 0) {
    // A one in front keeps the zeros behind the point; the point then takes its place.
    char* point = end;
    end = std::to_chars(point, buffer + sizeof(buffer), kPowers[decimals] + digits % kPowers[decimals]).ptr;
    *point = '.';
  }
  out.append(buffer, static_cast<std::size_t>(end - buffer));
  return true;
}

}  // namespace

void AppendNumber(std::string& out, double number) {
  char buffer[40];
  // Converting a double that the integer cannot hold is undefined; both bounds are exact powers of two.
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (number >= -kTwoTo63 && number < kTwoTo63) {
    const auto whole = static_cast<long long>(number);
    if (static_cast<double>(whole) == number) {
      const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof(buffer), whole);
      out.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
      return;
    }
  }
  if (AppendShortFraction(out, number)) {
    return;
  }
  const int length = std::snprintf(buffer, sizeof(buffer), "%g", number);
  out.append(buffer, static_cast<std::size_t>(length));
}

std::string Serialise(const Value& value) {
  std::string out;
  out.reserve(RoughSize(value));
  AppendValue(out, value);
  return out;
}

}  // namespace kiosk::json
