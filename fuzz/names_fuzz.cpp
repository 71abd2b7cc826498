// Each line as an address, judged by the C library, and as the name of a host and of a day's folder, judged by
// expressions; and the days that its bytes count up to, named by the C library.
#include "fuzz/peer.h"
#include "json/serialise.h"
#include "log/day_name.h"
#include "network/address.h"
#include "portal/sign_in_methods.h"

#include <ctime>

namespace {

using kiosk::json::Value;

void CheckAddress(const std::string& text) {
  const std::int64_t read = Ipv4(text);
  const auto address = kiosk::network::ParseAddress(text);
  Require(address.has_value() == (read >= 0));
  Require(!address || (*address == read && kiosk::network::AddressText(*address) == text));
}

void CheckHost(const std::string& text) {
  static const std::regex form("([a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?\\.)+[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?");
  const bool right = text.size() <= 253 && std::regex_match(text, form);
  Value sent = Value::Array();
  sent.Append(text);
  const Value kept = kiosk::portal::NormaliseSignIn(Value::Object().Set("extraHosts", sent));
  const auto& hosts = kiosk::json::Member(kept, "extraHosts").items();
  Require(right ? hosts.size() == 1 && hosts[0].text() == text : hosts.empty());
}

void CheckDay(const std::string& text) {
  static const std::regex form("[0-9]{4}-[0-9]{2}-[0-9]{2}");
  const std::wstring wide(text.begin(), text.end());
  Require(kiosk::log::IsDayName(wide) == (text.size() == 10 && std::regex_match(text, form)));

  std::time_t seconds = 0;
  for (const char byte : text.substr(0, 8)) {
    seconds = (seconds * 256 + static_cast<unsigned char>(byte)) % 100'000'000'000;  // until the year 5138
  }
  const std::tm* const day = std::gmtime(&seconds);
  char expected[16];
  Require(std::strftime(expected, sizeof(expected), "%04Y-%m-%d", day) == 10);
  const std::wstring name =
      kiosk::log::DayName(static_cast<unsigned>(day->tm_year + 1900), static_cast<unsigned>(day->tm_mon + 1),
                          static_cast<unsigned>(day->tm_mday))
          .data();
  Require(kiosk::log::IsDayName(name) && std::equal(name.begin(), name.end(), expected, expected + 10));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, [](std::string_view line) {
    CheckAddress(std::string(line));
    CheckHost(std::string(line));
    CheckDay(std::string(line));
  });
  return 0;
}
