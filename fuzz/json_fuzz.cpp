// The parser against an independent one and against the C library's numbers, and its values against their own text.
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using kiosk::json::Value;

// The error ends with an offset inside the text or at its end.
void RequireOffset(const std::string& error, std::size_t size) {
  const std::size_t at = error.rfind(" at offset ");
  Require(at != std::string::npos && at > 0);
  Require(std::strtoull(error.c_str() + at + 11, nullptr, 10) <= size);
}

int Depth(const Value& value) {
  int deepest = 0;
  for (const Value& child : value.IsArray() ? value.items() : value.values()) {
    deepest = std::max(deepest, Depth(child));
  }
  return deepest + (value.IsArray() || value.IsObject() ? 1 : 0);
}

void RequireLookups(const Value& value) {
  Require(value.keys().size() == value.values().size());
  for (std::size_t i = 0; i < value.keys().size(); ++i) {
    Require(&kiosk::json::Member(value, value.keys()[i]) == &value.values()[i]);
    RequireLookups(value.values()[i]);
  }
}

bool Same(const Value& ours, const Peer& peer) {
  if (ours.IsObject() && peer.is_object()) {
    auto key = ours.keys().begin();
    return std::equal(
        ours.values().begin(), ours.values().end(), peer.items().begin(), peer.items().end(),
        [&](const Value& value, const auto& member) { return *key++ == member.key() && Same(value, member.value()); });
  }
  return ours.IsNull()     ? peer.is_null()
         : ours.IsBool()   ? peer.is_boolean() && peer.get<bool>() == ours.boolean()
         : ours.IsNumber() ? peer.is_number() && peer.get<double>() == ours.number()
         : ours.IsString()
             ? peer.is_string() && peer.get_ref<const std::string&>() == ours.text()
             : peer.is_array() && std::equal(ours.items().begin(), ours.items().end(), peer.begin(), peer.end(), Same);
}

// The text without what this parser takes beyond strict JSON, and nothing else: a run of a number's bytes is 0, and a
// string has plain bytes, and escapes that are no surrogate's.
std::string Plain(std::string_view text) {
  constexpr std::string_view kNumber = "+-.0123456789eE";
  const auto is = [](int (*kind)(int), char byte) { return kind(static_cast<unsigned char>(byte)) != 0; };
  std::string plain;
  for (bool inside = false; !text.empty();) {
    const char byte = text[0];
    std::size_t taken = 1;
    inside = inside != (byte == '"');
    if (inside && byte == '\\') {
      plain += text.substr(0, taken = 2);
    } else if (inside && byte != '"') {
      plain += is(std::isxdigit, byte) ? '0' : 'x';
    } else if (kNumber.find(byte) != kNumber.npos && (plain.empty() || !is(std::isalpha, plain.back()))) {
      taken = text.find_first_not_of(kNumber);
      plain += '0';
    } else {
      plain += byte;
    }
    text.remove_prefix(std::min(taken, text.size()));
  }
  return plain;
}

// Both parsers agree, but where this one deliberately takes more.
void RequireAsThePeer(std::string_view text, const std::optional<Value>& ours, const std::string& error) {
  if (text.find('\0') != text.npos || error.starts_with("nesting too deep")) {
    return;  // the peer takes a zero outside strings as the end of the text, and any depth
  }
  const Peer peer = Peer::parse(text, nullptr, false);
  if (!peer.is_discarded()) {
    Require(ours && Same(*ours, peer));
  } else if (ours) {
    Require(Peer::accept(Plain(text)));
  }
}

// Numbers made of the input's bytes, one of its bits and one of runs that a number is read from.
void RequireNumbersAsTheCLibrary(const std::uint8_t* data, std::size_t size) {
  if (size < sizeof(double)) {
    return;
  }
  double number = 0;
  std::memcpy(&number, data, sizeof(number));
  for (const double each :
       {number, static_cast<double>(data[0] | data[1] << 8 | data[2] << 16) / std::pow(10, data[3] % 13)}) {
    char expected[40];
    (void)std::snprintf(expected, sizeof(expected), "%g", each);
    if (std::trunc(each) == each && each >= -0x1p63 && each < 0x1p63) {
      (void)std::snprintf(expected, sizeof(expected), "%lld", static_cast<long long>(each));
    }
    Require(std::isnan(each) || kiosk::json::AsString(each) == expected);
  }
  std::string run;
  for (std::size_t i = 0; i < std::min<std::size_t>(size, 1 + data[0] % 20); ++i) {
    run += "0123456789012345+-.eE"[data[i] % 21];
  }
  const double read = std::strtod(run.c_str(), nullptr);
  const std::optional<Value> value = kiosk::json::Parse(run);
  Require(value && value->number() == read && kiosk::json::ParseStored(run).has_value() == std::isfinite(read));
}

void Check(std::string_view text) {
  std::string error;
  std::optional<Value> value = kiosk::json::Parse(text, &error);
  RequireAsThePeer(text, value, error);
  const std::optional<Value> quiet = kiosk::json::Parse(text);
  Require(value.has_value() == quiet.has_value());
  if (!value) {
    RequireOffset(error, text.size());
    return;
  }
  Require(error.empty() && *value == *quiet);
  Require(Depth(*value) <= kiosk::json::kMaxDepth);
  RequireLookups(*value);

  if (!kiosk::json::ParseStored(text)) {
    return;  // an infinity is printed as nobody takes it back
  }
  // Printing may round a broken number, and the rounded one may be whole and print otherwise ("1.23457e+06" becomes
  // 1234570): from the first reading of the printed text on, nothing changes any more.
  const std::string first = kiosk::json::Serialise(*value);
  const std::optional<Value> second = kiosk::json::Parse(first);
  Require(second.has_value());
  RequireAsThePeer(first, second, "");
  const std::string printed = kiosk::json::Serialise(*second);
  const std::optional<Value> third = kiosk::json::Parse(printed);
  Require(third.has_value() && *third == *second && kiosk::json::Serialise(*third) == printed);

  value->Wipe();
  Require(value->IsNull());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RequireNumbersAsTheCLibrary(data, size);
  Check({reinterpret_cast<const char*>(data), size});
  // The mutations of a document rarely meet an escape.
  std::string escapes = "\"";
  for (std::size_t i = 0; i < std::min<std::size_t>(size, 16); ++i) {
    escapes += "\\u018dDcfabnrtx/E"[data[i] & 15];
  }
  Check(escapes + '"');
  return 0;
}
