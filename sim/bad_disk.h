// A disk that fails: what Windows answers in place of a call on a file, on every thread.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace sim {

// Kinds of calls, to be added up.
inline constexpr unsigned kLooks = 1;    // the begin of a list, attributes, free room, opening what is not there
inline constexpr unsigned kOpens = 2;    // of what is there
inline constexpr unsigned kMakes = 4;    // of files and folders
inline constexpr unsigned kReads = 8;    // a pipe is no file
inline constexpr unsigned kWrites = 16;  // the same
inline constexpr unsigned kFlushes = 32;
inline constexpr unsigned kMoves = 64;
inline constexpr unsigned kDeletes = 128;
inline constexpr unsigned kAllCalls = 255;
inline constexpr unsigned kHalfWrites = 256;  // take half of what they are given and report success

// Those calls on files whose path contains `part`, in any case of letters, fail with the error, in its lifetime. One at
// a time.
class BadDisk {
 public:
  BadDisk(const std::wstring& part, unsigned calls, DWORD error);
  BadDisk(const BadDisk&) = delete;
  BadDisk& operator=(const BadDisk&) = delete;
  ~BadDisk();
};

// For the simulation's own functions. Whether there is one at all; and whether it refuses that kind of call on the path
// (Plain), with the last error.
bool DiskIsBad();
bool DiskRefuses(unsigned kind, const std::wstring& plain);

}  // namespace sim
