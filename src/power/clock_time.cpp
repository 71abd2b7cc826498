#include "power/clock_time.h"

#include <cstddef>

namespace kiosk::power {
namespace {

constexpr std::uint32_t kDays = 7;

// The number of two decimal digits, or something too large for any clock.
std::uint32_t TwoDigits(const std::string& text, std::size_t at) {
  const auto digit = [&text](std::size_t position) -> std::uint32_t {
    const char character = text[position];
    return character >= '0' && character <= '9' ? static_cast<std::uint32_t>(character - '0') : 1000;
  };
  return digit(at) * 10 + digit(at + 1);
}

void AppendTwoDigits(std::string& text, std::uint32_t number) {
  text += static_cast<char>('0' + number / 10 % 10);
  text += static_cast<char>('0' + number % 10);
}

}  // namespace

std::optional<std::uint32_t> ParseClockTime(const json::Value& value) {
  const std::string& text = value.text();  // of another kind: empty
  if (text.size() != 5 || text[2] != ':') {
    return std::nullopt;
  }
  const std::uint32_t hours = TwoDigits(text, 0);
  const std::uint32_t minutes = TwoDigits(text, 3);
  if (hours > 23 || minutes > 59) {
    return std::nullopt;
  }
  return hours * 60 + minutes;
}

std::string ClockTimeText(std::uint32_t minutes) {
  std::string text;
  AppendTwoDigits(text, minutes / 60);
  text += ':';
  AppendTwoDigits(text, minutes % 60);
  return text;
}

std::optional<DayMask> ParseDays(const json::Value& value) {
  if (!value.IsArray() || value.items().size() > kDays) {
    return std::nullopt;
  }
  DayMask mask = 0;
  for (const json::Value& item : value.items()) {
    const double number = item.number();
    // Written so that a NaN fails it; only then is the conversion defined.
    if (!item.IsNumber() || !(number >= 0 && number < kDays)) {
      return std::nullopt;
    }
    const auto day = static_cast<std::uint32_t>(number);
    if (static_cast<double>(day) != number || (mask & (1U << day)) != 0) {
      return std::nullopt;
    }
    mask |= 1U << day;
  }
  return mask;
}

json::Value DaysToJson(DayMask days) {
  json::Value array = json::Value::Array();
  for (std::uint32_t day = 0; day < kDays; ++day) {
    if ((days & (1U << day)) != 0) {
      array.Append(day);
    }
  }
  return array;
}

}  // namespace kiosk::power
