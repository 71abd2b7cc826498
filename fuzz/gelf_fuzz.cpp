// Whatever a message holds, another library reads one record on one line, and in it the message: each byte that is no
// UTF-8 as U+FFFD.
#include "fuzz/peer.h"
#include "log/shipper/gelf.h"

namespace {

bool IsText(const std::string& bytes) {
  try {
    static_cast<void>(Peer(bytes).dump());
    return true;
  } catch (const Peer::type_error&) {
    return false;
  }
}

std::string Readable(const std::string& message) {
  std::string text;
  for (std::size_t at = 0; at < message.size();) {
    std::size_t length = 1;
    while (length <= 4 && (at + length > message.size() || !IsText(message.substr(at, length)))) {
      ++length;
    }
    text += length <= 4 ? message.substr(at, length) : "\xEF\xBF\xBD";
    at += length <= 4 ? length : 1;
  }
  return message.find_first_not_of(" \t\r\n\v\f") == std::string::npos ? "(blank)" : text;
}

void Check(std::string_view bytes) {
  const std::string message(bytes.substr(0, 400));
  std::string record;
  kiosk::log::shipper::AppendRecord(record, {.host = message, .site = message}, {.component = "x", .message = message});
  const Peer peer = Peer::parse(record, nullptr, false);
  Require(!peer.is_discarded() && record.find('\n') == std::string::npos);
  Require(peer["short_message"].get<std::string>() == Readable(message));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Check({reinterpret_cast<const char*>(data), size});
  EachLine(data, size, Check);
  return 0;
}
