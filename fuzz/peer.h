// What the fuzz targets share: another JSON library to ask, and seeds with a case in each line.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

using Peer = nlohmann::ordered_json;

inline void Require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

template <typename Check>
void EachLine(const std::uint8_t* data, std::size_t size, Check check) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (std::size_t end = 0; !text.empty(); text.remove_prefix(std::min(end + 1, text.size()))) {
    end = std::min(text.find('\n'), text.size());
    check(text.substr(0, end));
  }
}

inline Peer MemberOf(const Peer& value, const char* name) {
  return value.is_object() && value.contains(name) ? value[name] : Peer();
}

// A whole number from 0 to `most`; -1 is none.
inline std::int64_t WholeNumber(const Peer& value, double most) {
  const double number = value.is_number() ? value.get<double>() : -1;
  return number >= 0 && number <= most && std::trunc(number) == number ? static_cast<std::int64_t>(number) : -1;
}

// The minutes after midnight of "HH:MM"; -1 is none.
inline std::int64_t ClockTime(const Peer& value) {
  static const std::regex form("([01][0-9]|2[0-3]):[0-5][0-9]");
  const std::string text = value.is_string() ? value.get<std::string>() : "";
  return text.size() == 5 && std::regex_match(text, form) ? std::stoi(text) * 60 + std::stoi(text.substr(3)) : -1;
}

// A bit for each of the distinct days; -1 when the value is no list of them.
inline std::int64_t Days(const Peer& value) {
  std::int64_t days = value.is_array() ? 0 : -1;
  std::set<std::int64_t> seen;
  for (const Peer& each : value.is_array() ? value : Peer::array()) {
    const std::int64_t day = WholeNumber(each, 6);
    if (day < 0 || !seen.insert(day).second) {
      return -1;
    }
    days |= 1 << day;
  }
  return days;
}
