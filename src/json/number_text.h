#pragma once

#include <string>

namespace kiosk::json {

// Appends a number as this library prints it: "%lld" when it is whole and fits a 64-bit integer, else "%g" (six
// significant digits; "nan", "inf" and "-inf" included, which no JSON reader takes back).
void AppendNumber(std::string& out, double number);

}  // namespace kiosk::json
