#pragma once

#include <string>
#include <string_view>

namespace kioskctl {

// `code` (letters and digits; letters appear in upper case) in letters five lines high, for somebody who reads it from
// across a counter. Each line ends in a newline. Other characters appear as gaps.
std::string LargeText(std::string_view code);

}  // namespace kioskctl
