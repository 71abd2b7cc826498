// nlohmann-json as an independent oracle: on generated documents and on mutations of them both parsers must agree,
// except where this one deliberately takes more: numbers (json_test.cpp has their values), and raw control bytes, lone
// surrogates and invalid UTF-8 in strings.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>

#include "json/parse.h"
#include "json/serialise.h"

namespace {

using kiosk::json::Value;
using Peer = nlohmann::ordered_json;

class Generator {
 public:
  std::string Document() {
    text_.clear();
    Put(0);
    return text_;
  }

  std::string Mutate(std::string text) {
    // No zero byte: the peer takes one outside strings as the end of the text.
    static constexpr std::string_view kBytes =
        "\"\\[]{}:,tfn0123456789+-.eEu/abd \t\n\x01\x1F\x80\xC3\xA9\xED\xA0\xF0\xFF";
    for (std::size_t edits = 1 + Below(3); edits > 0; --edits) {
      const std::size_t at = Below(text.size() + 1);
      const std::size_t length = 1 + Below(4);
      // Something goes, something else comes, or a piece is repeated elsewhere.
      text.replace(at, Below(2) * length,
                   Below(2) == 0 ? std::string(Below(2), kBytes[Below(kBytes.size())])
                                 : text.substr(Below(text.size() + 1), length));
    }
    return text;
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }

  template <std::size_t N>
  const char* OneOf(const char* const (&choices)[N]) {
    return choices[Below(N)];
  }

  void Space() { text_ += OneOf({"", "", "", " ", "\n", "\t ", "\r\n"}); }

  void PutString() {
    text_ += '"';
    for (std::size_t pieces = Below(6); pieces > 0; --pieces) {
      text_ += OneOf({"a", "key", "longer plain text", "\xC5\xBC\xC3\xB3", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x7F",
                      "\\n", "\\\"", "\\\\", "\\/", "\\b\\f\\r\\t", "\\u0000", "\\u00e9", "\\u20AC", "\\ud83d\\ude00"});
    }
    text_ += '"';
  }

  void PutNumber() {
    text_ += OneOf({"", "-"}) + std::to_string(random_() >> Below(64));
    text_ += Below(3) == 0 ? "." + std::to_string(random_() >> Below(64)) : "";
    text_ += Below(4) == 0 ? OneOf({"e", "E", "e+", "E-"}) + std::to_string(Below(Below(8) == 0 ? 400 : 30)) : "";
  }

  void Put(int depth) {
    Space();
    const std::size_t kind = Below(depth > 5 ? 5 : 8);
    if (kind == 0) {
      text_ += OneOf({"null", "true", "false"});
    } else if (kind < 3) {
      PutNumber();
    } else if (kind < 5) {
      PutString();
    } else {
      const bool object = kind > 5;
      text_ += object ? "{" : "[";
      for (std::size_t left = Below(5); left > 0; --left) {
        if (object) {
          Space();
          PutString();
          text_ += " :";
        }
        Put(depth + 1);
        text_ += left > 1 ? "," : "";
      }
      text_ += object ? "}" : "]";
    }
    Space();
  }

  std::mt19937_64 random_{4711};  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
  std::string text_;
};

bool Same(const Value& ours, const Peer& peer) {
  if (ours.IsObject() && peer.is_object()) {
    auto key = ours.keys().begin();
    return std::equal(
        ours.values().begin(), ours.values().end(), peer.items().begin(), peer.items().end(),
        [&](const Value& value, const auto& member) { return *key++ == member.key() && Same(value, member.value()); });
  }
  return ours.IsNull()     ? peer.is_null()
         : ours.IsBool()   ? peer.is_boolean() && peer.get<bool>() == ours.boolean()
         : ours.IsNumber() ? peer.is_number() && peer.get<double>() == ours.number()
         : ours.IsString()
             ? peer.is_string() && peer.get_ref<const std::string&>() == ours.text()
             : peer.is_array() && std::equal(ours.items().begin(), ours.items().end(), peer.begin(), peer.end(), Same);
}

// The text with every string and literal made plain and every run of a number's bytes made 0: what this parser takes
// beyond strict JSON is then gone, and nothing else.
std::string Plain(const std::string& text) {
  static const std::regex literal("true|false|null");
  static const std::regex string(R"re("([^"\\]|\\(["\\/bfnrt]|u[0-9a-fA-F]{4}))*")re");
  static const std::regex number(R"([-+.0-9eE]+)");
  std::string plain = std::regex_replace(std::regex_replace(text, string, "\"\""), literal, "0");
  return std::regex_replace(plain, number, "0");
}

struct Seen {
  int both = 0, neither = 0, onlyOurs = 0;
};

void Compare(const std::string& text, Seen& seen) {
  const std::optional<Value> ours = kiosk::json::Parse(text);
  const Peer peer = Peer::parse(text, nullptr, false);
  const bool strict = !peer.is_discarded();
  ++(!ours ? seen.neither : strict ? seen.both : seen.onlyOurs);
  if (!ours) {
    ASSERT_FALSE(strict) << "refused, though strict JSON: " << text;
  } else if (strict) {
    ASSERT_TRUE(Same(*ours, peer)) << text;
  } else {
    ASSERT_TRUE(Peer::accept(Plain(text))) << "taken for more than numbers and bytes in strings: " << text;
  }
}

TEST(JsonDifferential, AgreesWithAnIndependentParser) {
  Generator generator;
  Seen plain, mutated;
  for (int i = 0; i < 4000; ++i) {
    const std::string text = generator.Document();
    ASSERT_NO_FATAL_FAILURE(Compare(text, plain));
    for (int mutation = 0; mutation < 4; ++mutation) {
      ASSERT_NO_FATAL_FAILURE(Compare(generator.Mutate(text), mutated));
    }
    // What is written is strict JSON of the same values, but for infinities and the six digits of broken numbers.
    if (const std::optional<Value> value = kiosk::json::ParseStored(text)) {
      const std::string written = kiosk::json::Serialise(*value);
      ASSERT_TRUE(Same(*kiosk::json::Parse(written), Peer::parse(written))) << written;
    }
  }
  // Every generated document is taken, by the peer but for numbers beyond a double; and the mutations reach every kind
  // of outcome.
  EXPECT_GT(plain.both, 3900);
  EXPECT_EQ(plain.neither, 0);
  EXPECT_GT(mutated.both, 1000);
  EXPECT_GT(mutated.neither, 1000);
  EXPECT_GT(mutated.onlyOurs, 100);
}

}  // namespace
