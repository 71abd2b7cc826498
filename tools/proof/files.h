// Files of the kit, each durable before the function returns: the next call may end Windows. And programs that it runs.
#pragma once

#include "win32/winapi.h"

#include <optional>
#include <string>

namespace proof {

// Empty when it is not there or cannot be read; the last error says which.
std::optional<std::string> ReadFileText(const std::wstring& path);

// Puts the text in the place of the whole file, which is never half there. False with the last error.
bool ReplaceFileText(const std::wstring& path, const std::string& text);

// Adds to the end of the file. False with the last error.
bool AppendFileText(const std::wstring& path, const std::string& text);

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
// Runs the command line to its end, for at most so many milliseconds.
Ran RunProgram(std::wstring command, DWORD limit);

}  // namespace proof
