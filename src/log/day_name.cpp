#include "log/day_name.h"

#include <algorithm>
#include <cwchar>

namespace kiosk::log {

std::array<wchar_t, 16> DayName(unsigned year, unsigned month, unsigned day) noexcept {
  std::array<wchar_t, 16> name{};
  static_cast<void>(std::swprintf(name.data(), name.size(), L"%04u-%02u-%02u", year, month, day));
  return name;
}

bool IsDayName(std::wstring_view name) noexcept {
  constexpr std::wstring_view kForm = L"0000-00-00";
  return std::equal(name.begin(), name.end(), kForm.begin(), kForm.end(),
                    [](wchar_t c, wchar_t form) { return form == L'0' ? c >= L'0' && c <= L'9' : c == form; });
}

}  // namespace kiosk::log
