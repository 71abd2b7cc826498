// Files of the kit, each durable before the function returns: the next call may end Windows. And programs that it runs.
#pragma once

#include "json/value.h"
#include "win32/winapi.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace proof {

// Empty when it is not there or cannot be read; the last error says which.
std::optional<std::string> ReadFileText(const std::wstring& path);

// What is in a file of JSON; null when that cannot be told.
kiosk::json::Value ReadJson(const std::wstring& path);

// Puts the text in the place of the whole file, which is never half there. False with the last error.
bool ReplaceFileText(const std::wstring& path, const std::string& text);

// Texts of lines that each have an end; what follows the last end is left out.
std::string Joined(const std::vector<std::string>& lines);
std::vector<std::string> Split(const std::string& text);

// The bytes that text::Hex has made a text of.
std::vector<std::uint8_t> Bytes(const std::string& hex);

inline bool IsThere(const std::wstring& path) noexcept {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The folder of this program and a name in it.
std::wstring BesideKit(const std::wstring& name);

struct Ran {
  DWORD error = ERROR_SUCCESS;  // it could not be started; WAIT_TIMEOUT: it took longer and was ended
  DWORD exitCode = 0;
  std::string output;  // of both kinds
};
// Runs the command line to its end, for at most so many milliseconds. With `meanwhile` the program is one that says
// something and then waits for the end of its input: the action takes place in between.
Ran RunProgram(std::wstring command, DWORD limit, const std::function<void()>& meanwhile = nullptr);

// Polls, for what another process does and nobody announces.
template <typename Condition>
bool Within(DWORD milliseconds, Condition condition) {
  constexpr DWORD kPoll = 50;
  const ULONGLONG end = GetTickCount64() + milliseconds;
  while (!condition()) {
    if (GetTickCount64() > end) {
      return false;
    }
    Sleep(kPoll);
  }
  return true;
}

}  // namespace proof
