#include "portal/sign_in_methods.h"

#include <algorithm>
#include <string_view>

namespace kiosk::portal {
namespace {

constexpr std::size_t kMaxHosts = 10;
constexpr std::size_t kMaxHostLength = 253;
constexpr std::size_t kMaxLabelLength = 63;

bool AllowedUnlessSwitchedOff(const json::Value& value) {
  switch (value.kind()) {
    case json::Kind::kBool:
      return value.boolean();
    case json::Kind::kNumber:
      return value.number() != 0;
    case json::Kind::kString:
      return value.text() == "true" || value.text() == "1";
    default:
      return true;
  }
}

bool IsLabel(std::string_view label) {
  return !label.empty() && label.size() <= kMaxLabelLength && label.front() != '-' && label.back() != '-' &&
         std::all_of(label.begin(), label.end(),
                     [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'; });
}

bool IsHostName(std::string_view name) {
  if (name.empty() || name.size() > kMaxHostLength || name.find('.') == std::string_view::npos) {
    return false;
  }
  while (true) {
    const std::size_t dot = name.find('.');
    if (!IsLabel(name.substr(0, dot))) {
      return false;
    }
    if (dot == std::string_view::npos) {
      return true;
    }
    name.remove_prefix(dot + 1);
  }
}

json::Value FilterHosts(const json::Value& portal) {
  json::Value hosts = json::Value::Array();
  for (const json::Value& entry : portal.items()) {
    if (hosts.items().size() == kMaxHosts) {
      break;
    }
    const auto& kept = hosts.items();
    if (entry.IsString() && IsHostName(entry.text()) && std::find(kept.begin(), kept.end(), entry) == kept.end()) {
      hosts.Append(entry);
    }
  }
  return hosts;
}

}  // namespace

json::Value NormaliseSignIn(const json::Value& portal) {
  json::Value methods = json::Value::Object();
  methods.Set("microsoft", AllowedUnlessSwitchedOff(json::Member(portal, "microsoft")));
  methods.Set("email", AllowedUnlessSwitchedOff(json::Member(portal, "email")));
  methods.Set("extraHosts", FilterHosts(json::Member(portal, "extraHosts")));
  return methods;
}

}  // namespace kiosk::portal
