#include "win32/wide_text.h"

#include "win32/winapi.h"

namespace kiosk::win32 {

std::wstring ToWide(std::string_view text) {
  const int length = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0');  // no byte becomes more than one unit
  const int used = text.empty() ? 0 : MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), length);
  wide.resize(static_cast<std::size_t>(used));
  return wide;
}

std::string ToNarrow(std::wstring_view text) {
  std::string narrow(text.size() * 3, '\0');  // no unit becomes more than three bytes
  const int used = text.empty() ? 0
                                : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                      narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
  narrow.resize(static_cast<std::size_t>(used));
  return narrow;
}

bool EqualIgnoringCase(std::wstring_view left, std::wstring_view right) noexcept {
  if (left.size() != right.size()) {
    return false;
  }
  return left.empty() || CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                                              static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

}  // namespace kiosk::win32
