// The service's log files, read while programs write to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kioskctl {

// The newest log files, newest first, together at most `budget` bytes (the newest one always), as full paths.
std::vector<std::wstring> NewestLogs(std::uint64_t budget);

// Appends what the file holds from `offset` on and moves `offset` behind it. Of more than `limit` bytes only the last
// come, from the beginning of a line on. The service may write to the file, move or delete it meanwhile; a link is not
// followed. False, with the last error, when it cannot be read.
bool ReadLog(const std::wstring& path, std::uint64_t& offset, std::size_t limit, std::string& text);

// The lines of the service's day files from the newest day on, those of several files in the order of their times.
class LogReader {
 public:
  // The whole lines that have come since the last call; days that begin and files that appear meanwhile are seen.
  std::string NewLines();

 private:
  struct File {
    std::uint64_t offset = 0;
    std::string begun;  // a line whose end is not there yet
  };
  std::vector<std::string> LinesOf(const std::wstring& path);

  std::wstring firstDay_;
  std::map<std::wstring, File> files_;
};

}  // namespace kioskctl
