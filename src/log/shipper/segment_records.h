// The records of a spool segment, out of its bytes. No Windows header.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

// Longer lines are not sent; nothing that this program writes comes near.
inline constexpr std::size_t kMaxRecord = std::size_t{60} * 1024;

// Takes the bytes in pieces of any size and keeps no more of them than a record and a piece.
class SegmentRecords {
 public:
  void Add(std::string_view bytes);

  // The next whole record, without its line end and the white space around it; false when more bytes are needed, so
  // that a last line without its end is none. What is no record (a torn line, zeros after a power cut, blank or
  // overlong lines) is passed over.
  bool Next(std::string& record);

 private:
  std::string bytes_;
  std::size_t at_ = 0;
  bool skipping_ = false;  // inside an overlong line
};

}  // namespace kiosk::log::shipper
