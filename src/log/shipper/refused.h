// Records that the endpoint will not have as they are: set aside for a person in `<log root>\Archive`.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

class Refused {
 public:
  // Before it has a folder records are only counted.
  void UseFolder(std::wstring folder) { folder_ = std::move(folder); }

  // Appends the record to the day's file "Refused_YYYYMMDD.log", up to 1 MiB a day, and says so in the local log at
  // most once an hour. `reason` is the answer.
  void SetAside(std::string_view record, const std::string& reason);

 private:
  void Keep(std::string_view record);

  std::wstring folder_;
  bool torn_ = false;           // the last record may have come onto the disk in part
  std::uint64_t count_ = 0;     // since the last line in the log
  std::uint64_t sayAgain_ = 0;  // tick count
};

}  // namespace kiosk::log::shipper
