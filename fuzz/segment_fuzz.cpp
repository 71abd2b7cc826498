// However a spool segment is cut into pieces, it holds the records that a look at the whole text finds; and what this
// program writes down is read back.
#include "fuzz/peer.h"
#include "log/shipper/gelf.h"
#include "log/shipper/segment_records.h"

namespace {

using kiosk::log::shipper::kMaxRecord;

// `nextSize` chooses the pieces.
template <typename NextSize>
std::vector<std::string> Records(std::string_view segment, NextSize nextSize) {
  kiosk::log::shipper::SegmentRecords reader;
  std::vector<std::string> records;
  std::string record;
  while (true) {
    while (reader.Next(record)) {
      records.push_back(record);
    }
    if (segment.empty()) {
      return records;
    }
    const std::size_t count = std::min<std::size_t>(nextSize(), segment.size());
    reader.Add(segment.substr(0, count));
    segment.remove_prefix(count);
  }
}

std::vector<std::string> NaiveRecords(const std::string& segment) {
  std::vector<std::string> records;
  EachLine(reinterpret_cast<const std::uint8_t*>(segment.data()), segment.rfind('\n') + 1, [&](std::string_view line) {
    const std::size_t from = line.find_first_not_of(" \t\r\v\f");
    const std::size_t to = line.find_last_not_of(" \t\r\v\f");
    if (line.size() <= kMaxRecord && from != line.npos && to > from && line[from] == '{' && line[to] == '}' &&
        line.find('\0') == line.npos) {
      records.emplace_back(line.substr(from, to - from + 1));
    }
  });
  return records;
}

void RequireWrittenIsRead(std::string_view message) {
  std::string record;
  kiosk::log::shipper::AppendRecord(record, {}, {.component = "x", .message = message.substr(0, 400)});
  Require(Records(record + '\n', [] { return kMaxRecord; }) == std::vector{record});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RequireWrittenIsRead({reinterpret_cast<const char*>(data), size});
  // Bytes that text has no use for stand for long runs, so that a short input makes overlong lines.
  std::string segment;
  for (const std::uint8_t byte : std::basic_string_view<std::uint8_t>(data, std::min<std::size_t>(size, 256))) {
    if (byte >= 0xF8) {
      segment.append(byte == 0xFF ? 1 : kMaxRecord / 2 - 1, byte % 2 == 0 ? ' ' : 'x');
    } else {
      segment += static_cast<char>(byte);
    }
  }
  const std::vector<std::string> expected = NaiveRecords(segment);
  std::uint32_t seed = size == 0 ? 0 : data[size - 1];
  Require(Records(segment, [] { return std::size_t{64} * 1024; }) == expected);
  Require(Records(segment, [&seed] {
            seed = seed * 1664525U + 1013904223U;
            return std::size_t{1} + ((seed & 0x10000U) != 0 ? seed >> 29U : seed >> 17U);
          }) == expected);
  return 0;
}
