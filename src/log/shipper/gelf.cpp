#include "log/shipper/gelf.h"

#include "text/text.h"

#include <algorithm>

namespace kiosk::log::shipper {
namespace {

// With exactly three decimals ("1792065600.007"): the JSON writer's six digits would ruin a time.
void AppendSeconds(std::string& out, std::uint64_t milliseconds) {
  const std::string decimals = std::to_string(milliseconds % 1000);
  out.append(std::to_string(milliseconds / 1000)).append(1, '.').append(3 - decimals.size(), '0').append(decimals);
}

// A JSON string with its quotes. Control characters are escaped, so it holds no line end.
void AppendText(std::string& out, std::string_view rest) {
  out += '"';
  while (!rest.empty()) {
    const std::size_t length = text::SequenceLength(rest);
    const char first = rest.front();
    if (length == 0) {
      out += "\xEF\xBF\xBD";
    } else if (first == '"' || first == '\\') {
      out += '\\';
      out += first;
    } else if (static_cast<unsigned char>(first) < 0x20U) {
      out += "\\u00";
      text::AppendHex(out, static_cast<unsigned char>(first));
    } else {
      out += rest.substr(0, length);
    }
    rest.remove_prefix(std::max<std::size_t>(length, 1));
  }
  out += '"';
}

void AppendNamed(std::string& out, std::string_view name, std::string_view text) {
  out.append(",\"").append(name).append("\":");
  AppendText(out, text);
}

void AppendNumber(std::string& out, std::string_view name, std::uint64_t number) {
  out.append(",\"").append(name).append("\":").append(std::to_string(number));
}

}  // namespace

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
