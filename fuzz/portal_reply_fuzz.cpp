// Lines "b<JSON>" as a tenant's branding and "s<JSON>" as sign-in methods: what is made of them holds what another
// library finds there, and comes back from its own text.
#include "branding/branding_record.h"
#include "fuzz/peer.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "portal/sign_in_methods.h"

#include <cerrno>

namespace {

using kiosk::json::Member;
using kiosk::json::Value;

// A width or height; not a number when it is none, or too small to be told from 0.
double Size(const Peer& sent) {
  static const std::regex form("[ \t-\r]*-?([0-9]+[.]?[0-9]*|[.][0-9]+)([eE][-+]?[0-9]+)?[ \t-\r]*");
  const std::string text = TextOf(sent);
  if (!sent.is_string() || text.size() > 400 || !std::regex_match(text, form)) {
    return sent.is_number() ? sent.get<double>() : std::nan("");
  }
  errno = 0;
  const double number = std::strtod(text.c_str(), nullptr);
  return number == 0 && errno == ERANGE ? std::nan("") : number;
}

void RequireText(const Value& made, const Peer& sent, const char* name) {
  const Peer text = MemberOf(sent, name);
  const Value& kept = Member(made, name);
  Require(text.is_string() ? kept.IsString() && kept.text() == text.get<std::string>() : kept.IsNull());
}

void RequireSize(const Value& made, const Peer& sent, const char* name) {
  const double size = Size(MemberOf(sent, name));
  const Value& kept = Member(made, name);
  Require(std::isfinite(size) ? kept.IsNumber() && kept.number() == size : kept.IsNull());
}

// Of the photos with a right digest, each digest once, the first sixteen.
std::vector<Peer> Expected(const Peer& photos) {
  static const std::regex digest("[0-9a-f]{64}");
  std::vector<Peer> expected;
  std::set<std::string> seen;
  for (const Peer& photo : photos.is_array() ? photos : Peer::array()) {
    const std::string text = TextOf(MemberOf(photo, "sha256"));
    if (text.size() == 64 && std::regex_match(text, digest) && seen.insert(text).second && expected.size() < 16) {
      expected.push_back(photo);
    }
  }
  return expected;
}

void CheckBranding(const Value& value, const Peer& sent) {
  const auto made = kiosk::branding::NormaliseBranding(value, "tenant");
  Require(made.has_value() == sent.is_object());
  if (!made) {
    return;
  }
  RequireText(*made, sent, "displayName");
  RequireText(*made, sent, "signInSubtitle");
  Require(Member(*made, "tenantId").text() == "tenant");
  const std::vector<Peer> expected = Expected(MemberOf(sent, "photos"));
  const std::vector<Value>& photos = Member(*made, "photos").items();
  Require(photos.size() == expected.size());
  for (std::size_t i = 0; i < photos.size(); ++i) {
    Require(kiosk::branding::PhotoDigests(*made)[i] == expected[i]["sha256"].get<std::string>());
    RequireText(photos[i], expected[i], "contentType");
    RequireText(photos[i], expected[i], "credit");
    RequireSize(photos[i], expected[i], "width");
    RequireSize(photos[i], expected[i], "height");
  }
  // From the first reading of the printed text on nothing changes any more (json_fuzz says what rounding does to it).
  const auto again = kiosk::json::Parse(kiosk::json::Serialise(*made));
  Require(again && kiosk::branding::NormaliseBranding(*again, "tenant") == *again);
}

void CheckSignIn(const Value& value, const Peer& sent) {
  const Value made = kiosk::portal::NormaliseSignIn(value);
  const Peer read = Peer::parse(kiosk::json::Serialise(made));
  for (const char* method : {"microsoft", "email"}) {
    const Peer given = MemberOf(sent, method);
    const bool on = given.is_boolean()  ? given == true
                    : given.is_number() ? given != 0
                                        : !given.is_string() || given == "true" || given == "1";
    Require(read[method] == on);
  }
  const std::vector<Peer> hosts = read["extraHosts"];
  Require(hosts.size() <= 10 && std::set<Peer>(hosts.begin(), hosts.end()).size() == hosts.size());
  // Each was sent, in that order (names_fuzz judges the names).
  const Peer given = MemberOf(sent, "extraHosts");
  const std::vector<Peer> list = given.is_array() ? given.get<std::vector<Peer>>() : std::vector<Peer>();
  auto from = list.begin();
  for (const Peer& host : hosts) {
    from = std::find(from, list.end(), host);
    Require(from != list.end());
  }
  Require(read.size() == 3 && kiosk::portal::NormaliseSignIn(made) == made);
}

void Check(std::string_view line) {
  const std::string_view text = line.substr(std::min<std::size_t>(line.size(), 1));
  const auto value = kiosk::json::Parse(text);
  const Peer sent = PeerOf(text);
  if (value && !sent.is_discarded()) {
    line[0] == 'b' ? CheckBranding(*value, sent) : CheckSignIn(*value, sent);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  EachLine(data, size, Check);
  return 0;
}
