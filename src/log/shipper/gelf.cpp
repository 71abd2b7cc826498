#include "log/shipper/gelf.h"

#include "text/text.h"

#include <algorithm>

namespace kiosk::log::shipper {
namespace {

// Length of the well-formed UTF-8 sequence that `text` begins with (RFC 3629: no overlong forms, no surrogates, nothing
// above U+10FFFF); 0 when there is none.
std::size_t SequenceLength(std::string_view text) noexcept {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned lead = byte(0);
  if (lead < 0x80U) {
    return 1;
  }
  const std::size_t length = lead >= 0xF0U ? 4 : lead >= 0xE0U ? 3 : 2;
  if (lead < 0xC2U || lead > 0xF4U || text.size() < length) {
    return 0;
  }
  // The second byte has a range of its own after four of the leads.
  const unsigned low = lead == 0xE0U ? 0xA0U : lead == 0xF0U ? 0x90U : 0x80U;
  const unsigned high = lead == 0xEDU ? 0x9FU : lead == 0xF4U ? 0x8FU : 0xBFU;
  if (byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) {
      return 0;
    }
  }
  return length;
}

void AppendNamed(std::string& out, std::string_view name, std::string_view text) {
  out.append(",\"").append(name).append("\":");
  AppendText(out, text);
}

void AppendNumber(std::string& out, std::string_view name, std::uint64_t number) {
  out.append(",\"").append(name).append("\":").append(std::to_string(number));
}

}  // namespace

void AppendSeconds(std::string& out, std::uint64_t milliseconds) {
  const std::string decimals = std::to_string(milliseconds % 1000);
  out.append(std::to_string(milliseconds / 1000)).append(1, '.').append(3 - decimals.size(), '0').append(decimals);
}

void AppendText(std::string& out, std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  out += '"';
  while (!text.empty()) {
    const std::size_t length = SequenceLength(text);
    const char first = text.front();
    if (length == 0) {
      out += "\xEF\xBF\xBD";
    } else if (first == '"' || first == '\\') {
      out += '\\';
      out += first;
    } else if (static_cast<unsigned char>(first) < 0x20U) {
      out += "\\u00";
      out += first < 0x10 ? '0' : '1';
      out += kDigits[static_cast<unsigned char>(first) & 0x0FU];
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  out += '"';
}

void AppendRecord(std::string& out, const Sender& sender, const Line& line) {
  out += "{\"version\":\"1.1\"";
  AppendNamed(out, "host", sender.host);
  AppendNamed(out, "short_message", text::TrimSpace(line.message).empty() ? "(blank)" : line.message);
  out += ",\"timestamp\":";
  AppendSeconds(out, line.time);
  AppendNumber(out, "level", static_cast<std::uint64_t>(std::clamp(line.level, 0, 7)));
  AppendNamed(out, "_component", line.component);
  AppendNamed(out, "_machine", sender.machine);
  AppendNamed(out, "_tenant", sender.tenant);
  AppendNamed(out, "_site", sender.site);
  if (!sender.install.empty()) {
    AppendNamed(out, "_install", sender.install);
  }
  AppendNumber(out, "_seq", line.seq);
  AppendNumber(out, "_pid", sender.pid);
  out += ",\"_started\":";
  AppendSeconds(out, sender.started);
  AppendNamed(out, "_app_version", sender.appVersion);
  if (line.dropped != 0) {
    AppendNumber(out, "_dropped", line.dropped);
  }
  out += '}';
}

}  // namespace kiosk::log::shipper
