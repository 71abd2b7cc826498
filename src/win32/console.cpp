#include "win32/console.h"

#include "win32/wide_text.h"
#include "win32/winapi.h"

#include <algorithm>

namespace kiosk::win32 {
namespace {

// A console takes no more than it has memory for at once: tens of thousands of characters.
constexpr std::size_t kConsolePiece = 8'192;

bool WriteToConsole(HANDLE console, std::wstring_view text) {
  DWORD written = 1;
  for (; !text.empty() && written != 0; text.remove_prefix(std::min<std::size_t>(written, text.size()))) {
    const auto piece = static_cast<DWORD>(std::min(text.size(), kConsolePiece));
    if (WriteConsoleW(console, text.data(), piece, &written, nullptr) == 0) {
      return false;
    }
  }
  return text.empty();
}

bool Write(DWORD stream, std::string_view text) {
  const HANDLE out = GetStdHandle(stream);
  DWORD mode = 0;
  DWORD written = 0;
  return text.empty() || (GetConsoleMode(out, &mode) != 0
                              ? WriteToConsole(out, ToWide(text))
                              : WriteFile(out, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) != 0);
}

}  // namespace

bool Print(std::string_view text) { return Write(STD_OUTPUT_HANDLE, text); }

void PrintError(std::string_view text) { Write(STD_ERROR_HANDLE, text); }

bool OutputIsConsole() noexcept {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

}  // namespace kiosk::win32
