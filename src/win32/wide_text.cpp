#include "win32/wide_text.h"

#include "win32/winapi.h"

namespace kiosk::win32 {

std::wstring ToWide(std::string_view text) {
  std::wstring wide;
  const int length = static_cast<int>(text.size());
  const int needed = text.empty() ? 0 : MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
  if (needed > 0) {
    wide.resize(static_cast<std::size_t>(needed));
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), needed);
  }
  return wide;
}

std::string ToNarrow(std::wstring_view text) {
  std::string narrow;
  const int length = static_cast<int>(text.size());
  const int needed =
      text.empty() ? 0 : WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  if (needed > 0) {
    narrow.resize(static_cast<std::size_t>(needed));
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(), needed, nullptr, nullptr);
  }
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
