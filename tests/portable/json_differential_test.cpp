// nlohmann-json as an independent oracle: on generated documents and on mutations of them both parsers must agree,
// except where this one deliberately takes more. Each such text must become strict JSON by repairing the named
// leniencies alone.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <set>

#include "json/parse.h"
#include "json/serialise.h"

namespace {

using kiosk::json::Kind;
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
      switch (Below(4)) {
        case 0:
          text.insert(at, 1, kBytes[Below(kBytes.size())]);
          break;
        case 1:
          text.erase(at, length);
          break;
        case 2:
          text.insert(at, text.substr(Below(text.size() + 1), length));
          break;
        default:
          if (at < text.size()) {
            text[at] = kBytes[Below(kBytes.size())];
          }
      }
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
    text_ += OneOf({"", "", "-"});
    text_ += Below(4) == 0 ? "0" : std::to_string(random_() >> Below(64));
    if (Below(3) == 0) {
      text_ += "." + std::to_string(random_() >> Below(64));
    }
    if (Below(4) == 0) {
      text_ += OneOf({"e", "E", "e+", "E-"}) + std::to_string(Below(Below(8) == 0 ? 400 : 30));
    }
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
        Space();
        if (object) {
          PutString();
          Space();
          text_ += ':';
        }
        Put(depth + 1);
        text_ += left > 1 ? "," : "";
      }
      Space();
      text_ += object ? "}" : "]";
    }
    Space();
  }

  std::mt19937_64 random_{4711};  // NOLINT(cert-msc32-c,cert-msc51-cpp): repeatable
  std::string text_;
};

bool Same(const Value& ours, const Peer& peer) {
  switch (ours.kind()) {
    case Kind::kNull:
      return peer.is_null();
    case Kind::kBool:
      return peer.is_boolean() && peer.get<bool>() == ours.boolean();
    case Kind::kNumber:
      return peer.is_number() && peer.get<double>() == ours.number();
    case Kind::kString:
      return peer.is_string() && peer.get_ref<const std::string&>() == ours.text();
    case Kind::kArray:
      return peer.is_array() && std::equal(ours.items().begin(), ours.items().end(), peer.begin(), peer.end(), Same);
    case Kind::kObject: {
      if (!peer.is_object() || peer.size() != ours.keys().size()) {
        return false;
      }
      std::size_t i = 0;
      for (auto member = peer.begin(); member != peer.end(); ++member, ++i) {
        if (member.key() != ours.keys()[i] || !Same(ours.values()[i], member.value())) {
          return false;
        }
      }
      return true;
    }
  }
  return false;
}

// Makes a text that this parser took strict, noting each leniency that it had to repair.
class Repair {
 public:
  explicit Repair(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size()) {
      std::size_t end = i + 1;
      if (text[i] == '"') {
        while (end < text.size() && text[end] != '"') {
          end += text[end] == '\\' ? 2 : 1;
        }
        ++end;
        strict += String(text.substr(i, end - i));
      } else if (kNumberBytes.find(text[i]) != std::string_view::npos && !InLiteral(text, i)) {
        end = std::min(text.find_first_not_of(kNumberBytes, i), text.size());
        strict += Number(text.substr(i, end - i));
      } else {
        strict += text[i];
      }
      i = end;
    }
  }

  std::string strict;
  std::set<std::string> leniencies;
  bool sameValues = true;  // whether the repairs kept every value as it was

 private:
  static constexpr std::string_view kNumberBytes = "0123456789+-.eE";

  // The "e" that ends a literal; a number follows one nowhere in a text that was taken.
  static bool InLiteral(const std::string& text, std::size_t at) {
    return text[at] == 'e' && at > 0 && (text[at - 1] == 'u' || text[at - 1] == 's');
  }

  std::string Number(const std::string& run) {
    static const std::regex grammar(R"(-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?)");
    if (std::regex_match(run, grammar)) {
      return run;
    }
    leniencies.insert("lenient number");
    return Peer(std::strtod(run.c_str(), nullptr)).dump();
  }

  std::string String(std::string token) {
    const auto step = [&](const char* leniency, bool keeps, const auto& repair) {
      if (Peer::accept(token)) {
        return;
      }
      std::string repaired = repair(token);
      if (repaired != token) {
        leniencies.insert(leniency);
        sameValues = sameValues && keeps;
        token = std::move(repaired);
      }
    };
    step("raw control byte", true, [](const std::string& text) {
      std::string out;
      for (const char byte : text) {
        char escape[8];
        (void)std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(byte));
        out += static_cast<unsigned char>(byte) < 0x20 ? escape : std::string(1, byte);
      }
      return out;
    });
    step("lone surrogate", false, [](const std::string& text) {
      static const std::regex surrogate(R"((\\[^u])|\\u[dD][89a-fA-F][0-9a-fA-F]{2})");
      return std::regex_replace(text, surrogate, "$1");
    });
    step("invalid UTF-8", false, [](std::string text) {
      std::replace_if(
          text.begin(), text.end(), [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; }, '?');
      return text;
    });
    return token;
  }
};

struct Seen {
  int both = 0, neither = 0, onlyOurs = 0;
  std::set<std::string> leniencies;
};

void Compare(const std::string& text, Seen& seen) {
  const std::optional<Value> ours = kiosk::json::Parse(text);
  std::optional<Peer> peer;
  try {
    peer = Peer::parse(text);
  } catch (const Peer::exception&) {
  }
  if (ours && peer) {
    ++seen.both;
    ASSERT_TRUE(Same(*ours, *peer)) << text;
  } else if (peer) {
    FAIL() << "refused, though strict JSON: " << text;
  } else if (!ours) {
    ++seen.neither;
  } else {
    ++seen.onlyOurs;
    const Repair repair(text);
    ASSERT_FALSE(repair.leniencies.empty()) << "taken without a named leniency: " << text;
    ASSERT_TRUE(Peer::accept(repair.strict)) << "taken for more than the named leniencies: " << text;
    if (repair.sameValues) {
      ASSERT_TRUE(Same(*ours, Peer::parse(repair.strict))) << text;
    }
    seen.leniencies.insert(repair.leniencies.begin(), repair.leniencies.end());
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
    // What is written is strict JSON of the same values, but for the six digits of broken numbers.
    if (const std::optional<Value> value = kiosk::json::Parse(text)) {
      const std::string written = kiosk::json::Serialise(*value);
      ASSERT_TRUE(Same(*kiosk::json::Parse(written), Peer::parse(written))) << written;
    }
  }
  // Numbers beyond a double aside, every generated document is taken; and the mutations reach every kind of outcome.
  EXPECT_GT(plain.both, 3900);
  EXPECT_EQ(plain.onlyOurs, 0);
  EXPECT_GT(mutated.both, 1000);
  EXPECT_GT(mutated.neither, 1000);
  EXPECT_GT(mutated.onlyOurs, 100);
  EXPECT_EQ(mutated.leniencies,
            (std::set<std::string>{"invalid UTF-8", "lenient number", "lone surrogate", "raw control byte"}));
}

}  // namespace
