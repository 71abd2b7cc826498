#include "log/shipper/remote_config.h"

#include "json/parse.h"
#include "json/serialise.h"

#include <algorithm>
#include <cmath>

namespace kiosk::log::shipper {
namespace {

constexpr std::size_t kMaxUrl = 2048;
constexpr double kMinLevel = 3;
constexpr double kMaxLevel = 7;

bool TakeFlag(const json::Value& value, bool& flag) {
  flag = value.IsBool() ? value.boolean() : flag;
  return value.IsNull() || value.IsBool();
}

bool TakeLevel(const json::Value& value, int& level) {
  if (value.IsNull()) {
    return true;
  }
  const double number = value.number();
  if (!value.IsNumber() || !(number >= kMinLevel && number <= kMaxLevel) || number != std::floor(number)) {
    return false;
  }
  level = static_cast<int>(number);
  return true;
}

bool TakeUrl(const json::Value& value, std::string& url) {
  url = value.text();
  return value.IsNull() || (value.IsString() && IsHttpsUrl(url));
}

}  // namespace

std::optional<RemoteConfig> ParseRemoteConfig(std::string_view text, std::string& fault) {
  if (text.size() > kMaxConfig) {
    fault = "larger than 64 KiB";
    return std::nullopt;
  }
  const std::optional<json::Value> parsed = json::Parse(text, &fault);
  if (!parsed) {
    return std::nullopt;
  }
  if (!parsed->IsObject()) {
    fault = "no object";
    return std::nullopt;
  }
  RemoteConfig config;
  const auto member = [&parsed](const char* name) -> const json::Value& { return json::Member(*parsed, name); };
  if (!TakeFlag(member("enabled"), config.enabled)) {
    fault = "\"enabled\" is neither true nor false";
  } else if (!TakeLevel(member("minLevel"), config.minLevel)) {
    fault = "\"minLevel\" is no whole number from 3 to 7";
  } else if (!TakeFlag(member("batch"), config.batch)) {
    fault = "\"batch\" is neither true nor false";
  } else if (!TakeUrl(member("endpoint"), config.endpoint)) {
    fault = "\"endpoint\" is no https URL";
  } else {
    return config;
  }
  return std::nullopt;
}

std::string RemoteConfigText(const RemoteConfig& config) {
  json::Value value = json::Value::Object();
  value.Set("enabled", config.enabled);
  value.Set("minLevel", config.minLevel);
  value.Set("batch", config.batch);
  if (!config.endpoint.empty()) {
    value.Set("endpoint", config.endpoint);
  }
  return json::Serialise(value);
}

bool IsHttpsUrl(std::string_view url) noexcept {
  constexpr std::string_view kScheme = "https://";
  if (url.size() > kMaxUrl || url.substr(0, kScheme.size()) != kScheme) {
    return false;
  }
  const std::string_view rest = url.substr(kScheme.size());
  const std::string_view host = rest.substr(0, rest.find_first_of("/?#"));
  return !host.empty() && host.front() != ':' && host.find('@') == std::string_view::npos &&
         std::all_of(url.begin(), url.end(), [](char c) {
           return c > ' ' && c != 0x7F && c != '"' && c != '\'' && c != '\\' && c != '<' && c != '>';
         });
}

}  // namespace kiosk::log::shipper
