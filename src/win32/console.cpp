#include "win32/console.h"

#include "win32/wide_text.h"
#include "win32/winapi.h"

namespace kiosk::win32 {
namespace {

void Write(DWORD stream, std::string_view text) {
  const HANDLE out = GetStdHandle(stream);
  DWORD mode = 0;
  DWORD written = 0;
  if (GetConsoleMode(out, &mode) != 0) {
    const std::wstring wide = ToWide(text);
    WriteConsoleW(out, wide.c_str(), static_cast<DWORD>(wide.size()), &written, nullptr);
  } else {
    WriteFile(out, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  }
}

}  // namespace

void Print(std::string_view text) { Write(STD_OUTPUT_HANDLE, text); }

void PrintError(std::string_view text) { Write(STD_ERROR_HANDLE, text); }

bool OutputIsConsole() noexcept {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

}  // namespace kiosk::win32
