// Lists of cases in tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kiosk::test {

// The parts of "a|b||c", an empty one included.
inline std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == '|') {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

}  // namespace kiosk::test
