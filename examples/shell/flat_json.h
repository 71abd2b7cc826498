// As much JSON as the pipe needs; any library does as well.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

// Every value by its path: "policy.sleepMinutes" is "0", "updates.1.title" a text, "ok" is "true". An object or array
// is "".
using Json = std::map<std::string, std::string>;

inline std::string Get(const Json& json, const std::string& path) {
  const auto found = json.find(path);
  return found == json.end() ? std::string() : found->second;
}

inline bool Take(std::string_view& rest, char wanted) {
  rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
  const bool there = !rest.empty() && rest.front() == wanted;
  rest.remove_prefix(there ? 1 : 0);
  return there;
}

// The service writes control characters alone as \n, \u00NN and the like; a screen gets a blank for each.
inline bool ReadText(std::string_view& rest, std::string& text) {
  bool any = Take(rest, '"');
  for (; any && !rest.empty() && rest.front() != '"'; rest.remove_prefix(1)) {
    if (rest.front() == '\\' && rest.size() > 1) {
      rest.remove_prefix(rest.size() > 5 && rest[1] == 'u' ? 5 : 1);
      text += rest.front() == '"' || rest.front() == '\\' ? rest.front() : ' ';
    } else {
      text += rest.front();
    }
  }
  return any && Take(rest, '"');
}

// Reads one value into `json`, and what is in it below its path.
inline bool Read(std::string_view& rest, const std::string& path, Json& json, int depth = 0) {
  const bool object = Take(rest, '{');
  std::string& value = json[path];
  if (object || Take(rest, '[')) {
    const char close = object ? '}' : ']';
    for (int index = 0; !Take(rest, close); ++index) {
      std::string name = object ? "" : std::to_string(index);
      if (depth > 8 || (object && (!ReadText(rest, name) || !Take(rest, ':'))) ||
          !Read(rest, path.empty() ? name : path + "." + name, json, depth + 1) ||
          (!Take(rest, ',') && (rest.empty() || rest.front() != close))) {
        return false;
      }
    }
    return true;
  }
  if (!rest.empty() && rest.front() == '"') {
    return ReadText(rest, value);
  }
  value = rest.substr(0, std::min(rest.find_first_of(",]} \t\r\n"), rest.size()));
  rest.remove_prefix(value.size());
  return !value.empty();
}

// A member of a request: ,"name":"value"
inline std::string Text(const char* name, std::string_view value) {
  std::string member;
  member.reserve(value.size() * 2 + 64);  // it never moves, so no copy of a password stays behind
  member.append(",\"").append(name).append("\":\"");
  for (const char each : value) {
    if (each == '"' || each == '\\') {
      member += '\\';
    }
    member += static_cast<unsigned char>(each) < 0x20 ? ' ' : each;
  }
  member += '"';
  return member;
}

// ,"name":12
inline std::string Whole(const char* name, const char* digits) {
  return std::string(",\"") + name + "\":" + std::to_string(std::strtol(digits, nullptr, 10));
}
