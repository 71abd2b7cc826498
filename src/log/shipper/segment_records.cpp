#include "log/shipper/segment_records.h"

#include "text/text.h"

#include <utility>

namespace kiosk::log::shipper {
namespace {

// An object on one line. A power cut may leave a file with zeros where text was to be.
bool LooksWhole(std::string_view line) noexcept {
  return line.size() >= 2 && line.front() == '{' && line.back() == '}' && line.find('\0') == std::string_view::npos;
}

}  // namespace

void SegmentRecords::Add(std::string_view bytes) {
  bytes_.erase(0, std::exchange(at_, 0));
  bytes_ += bytes;
}

bool SegmentRecords::Next(std::string& record) {
  for (std::size_t end = bytes_.find('\n', at_); end != std::string::npos; end = bytes_.find('\n', at_)) {
    const std::size_t length = end - at_;
    const std::string_view line = text::TrimSpace(std::string_view(bytes_).substr(at_, length));
    at_ = end + 1;
    if (!std::exchange(skipping_, false) && length <= kMaxRecord && LooksWhole(line)) {
      record = line;
      return true;
    }
  }
  if (bytes_.size() - at_ > kMaxRecord) {
    skipping_ = true;
    at_ = bytes_.size();
  }
  return false;
}

}  // namespace kiosk::log::shipper
