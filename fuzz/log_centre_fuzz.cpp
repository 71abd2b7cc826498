// What the central endpoint says: lines "c<JSON>" as its configuration, judged by another library, and others as its
// Retry-After, judged by the C library's calendar.
#include "fuzz/peer.h"
#include "log/shipper/remote_config.h"
#include "log/shipper/retry_after.h"

#include <ctime>

namespace {

using namespace kiosk::log::shipper;

bool IsUrl(const std::string& text) {
  static const std::regex form("https://[^/?#:@][^/?#@]*([/?#].*)?");
  static const std::regex bytes("[!#-&(-;=?-\\[\\]-~]*");
  return text.size() <= 2048 && std::regex_match(text, bytes) && std::regex_match(text, form);
}

// The first member that is wrong; empty when none is.
std::string Wrong(const Peer& sent) {
  const auto isFlag = [&sent](const char* name) {
    return MemberOf(sent, name).is_null() || MemberOf(sent, name).is_boolean();
  };
  const Peer level = MemberOf(sent, "minLevel");
  const Peer url = MemberOf(sent, "endpoint");
  return !sent.is_object()                               ? "no object"
         : !isFlag("enabled")                            ? "enabled"
         : !level.is_null() && WholeNumber(level, 7) < 3 ? "minLevel"
         : !isFlag("batch")                              ? "batch"
         : !url.is_null() && !IsUrl(TextOf(url))         ? "endpoint"
                                                         : "";
}

void CheckConfig(std::string_view text) {
  std::string fault;
  const std::optional<RemoteConfig> config = ParseRemoteConfig(text, fault);
  if (const Peer sent = PeerOf(text); !sent.is_discarded() && !fault.starts_with("nesting")) {
    const std::string wrong = Wrong(sent);
    Require(config ? wrong.empty() : !wrong.empty() && fault.find(wrong) != std::string::npos);
    // What was sent, and only for the rest what holds without a configuration.
    const Peer read = config ? Peer::parse(RemoteConfigText(*config)) : Peer();
    for (const auto& [name, value] : read.items()) {
      Require(MemberOf(sent, name.c_str()).is_null() || sent[name] == value);
    }
  }
  if (config) {
    const std::optional<RemoteConfig> again = ParseRemoteConfig(RemoteConfigText(*config), fault);
    Require(again && again->enabled == config->enabled && again->minLevel == config->minLevel &&
            again->batch == config->batch && again->endpoint == config->endpoint);
  }
}

constexpr std::time_t kNow = 784'111'000;  // 1994-11-06 08:36:40 UTC

std::uint64_t RetryAfter(const std::string& text) {
  return ParseRetryAfter(std::wstring(text.begin(), text.end()), std::uint64_t{kNow} * 1000);
}

// Milliseconds from now, within an hour.
std::uint64_t Wait(std::time_t until) {
  return static_cast<std::uint64_t>(std::clamp<std::time_t>(until - kNow, 0, 3600)) * 1000;
}

constexpr char kDate[] = "%a, %d %b %Y %H:%M:%S GMT";

void CheckRetryAfter(const std::string& text) {
  if (!text.empty() && text.find_first_not_of("0123456789") == text.npos) {
    const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
    Require(RetryAfter(text) == std::min(number, 3600UL) * 1000);
    // The number as a moment: written as a date it is the same wait, and with any other day of the week.
    const std::time_t moment = kNow + static_cast<std::time_t>(number % 10'000'000'000) - 1000;
    char date[64];
    Require(std::strftime(date, sizeof(date), kDate, std::gmtime(&moment)) != 0);
    Require(RetryAfter(date) == Wait(moment) && RetryAfter("Xxx" + std::string(date + 3)) == Wait(moment));
    return;
  }
  // A date is right when the C library reads one there that it writes in the same way.
  std::tm read{};
  char date[64] = {};
  const std::string sunday = "Sun" + text.substr(std::min<std::size_t>(text.size(), 3));
  std::uint64_t expected = 0;
  if (text.size() == 29 && sunday.find('\0') == sunday.npos && strptime(sunday.c_str(), kDate, &read) != nullptr) {
    const std::time_t moment = timegm(&read);
    static_cast<void>(std::strftime(date, sizeof(date), kDate, std::gmtime(&moment)));
    expected = sunday.substr(3) == date + 3 ? Wait(moment) : 0;
  }
  Require(RetryAfter(text) == expected);
}

void Check(std::string_view line) {
  line.starts_with('c') ? CheckConfig(line.substr(1)) : CheckRetryAfter(std::string(line));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  return 0;
}
