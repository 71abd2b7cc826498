// What the central side may change of a terminal's log shipping, and nothing else.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

struct RemoteConfig {
  bool enabled = true;
  int minLevel = 7;      // the least grave level that is shipped, 3 to 7
  bool batch = false;    // several records in one request, one a line
  std::string endpoint;  // https URL in place of the setting "LogEndpoint"; empty: that one
};

// The most bytes of a configuration.
inline constexpr std::size_t kMaxConfig = 65536;

// Reads a JSON object of these members. A missing member has the value above, others are ignored; one that is wrong
// makes the whole text worth nothing, and `fault` then says which.
std::optional<RemoteConfig> ParseRemoteConfig(std::string_view text, std::string& fault);

// The same as compact JSON, every member in it.
std::string RemoteConfigText(const RemoteConfig& config);

// An https URL with a host and without user information, blanks, quotes or control bytes, at most 2048 bytes.
bool IsHttpsUrl(std::string_view url) noexcept;

}  // namespace kiosk::log::shipper
