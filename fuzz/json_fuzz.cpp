#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "json/parse.h"
#include "json/serialise.h"

namespace {

using kiosk::json::Value;

void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  std::optional<Value> value = kiosk::json::Parse(text, &error);
  const std::optional<Value> quiet = kiosk::json::Parse(text);
  Require(value.has_value() == quiet.has_value());
  if (!value) {
    RequireOffset(error, size);
    return 0;
  }
  Require(error.empty() && *value == *quiet);
  Require(Depth(*value) <= kiosk::json::kMaxDepth);
  RequireLookups(*value);

  if (!kiosk::json::ParseStored(text)) {
    return 0;  // an infinity is printed as nobody takes it back
  }
  // Printing may round a broken number, and the rounded one may be whole and print otherwise ("1.23457e+06" becomes
  // 1234570): from the first reading of the printed text on, nothing changes any more.
  const std::optional<Value> second = kiosk::json::Parse(kiosk::json::Serialise(*value));
  Require(second.has_value());
  const std::string printed = kiosk::json::Serialise(*second);
  const std::optional<Value> third = kiosk::json::Parse(printed);
  Require(third.has_value() && *third == *second && kiosk::json::Serialise(*third) == printed);

  value->Wipe();
  Require(value->IsNull());
  return 0;
}
