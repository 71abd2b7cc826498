// One log line as a GELF 1.1 record: a JSON object on one line, UTF-8, whatever bytes the message holds.
// https://go2docs.graylog.org/current/getting_in_log_data/gelf.html
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kiosk::log::shipper {

// What every record of this process carries.
struct Sender {
  std::string host;
  std::string machine;
  std::string tenant;
  std::string site;
  std::string install;  // left out when empty
  std::string appVersion;
  std::uint64_t started = 0;  // of the process, ms since 1970
  std::uint32_t pid = 0;
};

struct Line {
  std::uint64_t time = 0;  // ms since 1970, UTC
  std::uint64_t seq = 0;   // counts the lines of this process
  int level = 0;           // syslog, brought into 0 to 7
  std::string_view component;
  std::string_view message;
  std::uint64_t dropped = 0;  // lines that were lost since the last record that said so
};

// Appends the record, without a line end. A message without anything to see is sent as "(blank)"; bytes that are no
// UTF-8 become U+FFFD, one for each.
void AppendRecord(std::string& out, const Sender& sender, const Line& line);

}  // namespace kiosk::log::shipper
