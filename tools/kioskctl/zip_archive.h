// A zip file that is made in memory. Its members are stored as they are: logs of some megabytes need no more, and
// whoever reads this knows what is in the file. The format is PKWARE's APPNOTE.TXT, 4.3 and 4.4.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kioskctl {

class ZipArchive {
 public:
  // The local time that all members bear, as MS-DOS writes it.
  ZipArchive(std::uint16_t date, std::uint16_t time) : date_(date), time_(time) {}

  // `name` is UTF-8, its folders end in "/", and no other member has it. All together stay below 4 GiB and 65,535
  // members.
  void Add(std::string_view name, std::string_view content);

  // The whole file. Nothing may be added after it.
  std::string Finish();

 private:
  std::uint16_t date_;
  std::uint16_t time_;
  std::uint16_t count_ = 0;
  std::string file_;
  std::string directory_;
};

}  // namespace kioskctl
