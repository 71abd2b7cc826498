#include "json/parse.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <system_error>

#include "text/text.h"

namespace kiosk::json {
namespace {

bool IsNumberByte(char byte) {
  return text::IsDigit(byte) || byte == '+' || byte == '-' || byte == '.' || byte == 'e' || byte == 'E';
}

void AppendUtf8(std::string& out, std::uint32_t code) {
  const auto tail = [&](int shift) { out += static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    tail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    tail(6);
    tail(0);
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

// What strtod makes of a run of number bytes, 0 when it finds no number in front. from_chars gives the same doubles
// many times faster, needs no terminator and knows no locale, but it takes no plus sign and does not tell an overflow
// from an underflow: such a run, rare enough, goes to strtod itself.
double ConvertNumber(std::string_view run) {
  std::string_view digits = run;
  if (digits.front() == '+') {
    digits.remove_prefix(1);
    if (!digits.empty() && digits.front() == '-') {
      return 0.0;
    }
  }
  double number = 0.0;
  const std::from_chars_result result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return result.ec == std::errc::result_out_of_range ? std::strtod(std::string(run).c_str(), nullptr) : number;
}

// Recursive descent. Each Parse function pushes the value it read on `values_`; a container takes what was pushed since
// its bracket, so every vector is allocated once and with its exact size.
class Parser {
 public:
  Parser(std::string_view text, std::string* error) : text_(text), error_(error) {}

  std::optional<Value> Run() {
    if (ParseDocument()) {
      return std::move(values_.back());
    }
    for (Value& value : values_) {
      value.Wipe();
    }
    for (std::string& key : keys_) {
      text::Wipe(key);
    }
    return std::nullopt;
  }

 private:
  bool ParseDocument();
  bool ParseValue();
  bool ParseLiteral(std::string_view literal, Value value);
  bool ParseNumber();
  bool ParseText(std::string& out);
  bool ParseEscape(std::string& out);
  bool ParseCodeUnit(std::uint32_t& unit);
  bool TakeLowSurrogate(std::uint32_t& unit);
  bool ParseArray();
  bool ParseObject();
  bool ParseMembers();

  bool AtEnd() const { return pos_ == text_.size(); }
  bool Take(char byte) {
    if (AtEnd() || text_[pos_] != byte) {
      return false;
    }
    ++pos_;
    return true;
  }
  void SkipSpace() {
    while (!AtEnd() && (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }
  bool Fail(const char* message) {
    if (error_ != nullptr) {
      *error_ = std::string(message) + " at offset " + std::to_string(pos_);
    }
    return false;
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  int depth_ = 0;
  std::string* error_;
  std::vector<Value> values_;
  std::vector<std::string> keys_;
};

bool Parser::ParseDocument() {
  if (!ParseValue()) {
    return false;
  }
  SkipSpace();
  return AtEnd() || Fail("trailing data");
}

bool Parser::ParseValue() {
  SkipSpace();
  if (AtEnd()) {
    return Fail("unexpected end of input");
  }
  switch (text_[pos_]) {
    case '"':
      ++pos_;
      // Pushed before it is read: a half-read text is then wiped like all else when the parse fails.
      values_.emplace_back(std::string());
      return ParseText(*values_.back().EditText());
    case '[':
    case '{': {
      if (depth_ == kMaxDepth) {
        return Fail("nesting too deep");
      }
      ++depth_;
      const bool parsed = text_[pos_++] == '[' ? ParseArray() : ParseObject();
      --depth_;
      return parsed;
    }
    case 't':
      return ParseLiteral("true", true);
    case 'f':
      return ParseLiteral("false", false);
    case 'n':
      return ParseLiteral("null", Value());
    default:
      return ParseNumber();
  }
}

bool Parser::ParseLiteral(std::string_view literal, Value value) {
  if (text_.substr(pos_, literal.size()) != literal) {
    return Fail("bad literal");
  }
  pos_ += literal.size();
  values_.push_back(std::move(value));
  return true;
}

bool Parser::ParseNumber() {
  std::size_t end = pos_;
  while (end < text_.size() && IsNumberByte(text_[end])) {
    ++end;
  }
  if (end == pos_) {
    return Fail("expected number");
  }
  values_.emplace_back(ConvertNumber(text_.substr(pos_, end - pos_)));
  pos_ = end;
  return true;
}

// Reads on from behind the opening quote.
bool Parser::ParseText(std::string& out) {
  const auto plainEnd = [this] {
    std::size_t end = pos_;
    while (end < text_.size() && text_[end] != '"' && text_[end] != '\\') {
      ++end;
    }
    return end;
  };
  std::size_t end = plainEnd();
  if (end < text_.size() && text_[end] == '\\') {
    // No decoded text is longer than its escaped form. Growing step by step would leave copies of a secret behind.
    std::size_t close = end;
    while (close < text_.size() && text_[close] != '"') {
      close += text_[close] == '\\' ? 2 : 1;
    }
    out.reserve(close - pos_);
  }
  for (;; end = plainEnd()) {
    out.append(text_, pos_, end - pos_);
    pos_ = end;
    if (Take('"')) {
      return true;
    }
    if (!Take('\\')) {
      return Fail("unterminated string");
    }
    if (!ParseEscape(out)) {
      return false;
    }
  }
}

// Reads on from behind the backslash.
bool Parser::ParseEscape(std::string& out) {
  if (AtEnd()) {
    return Fail("unterminated escape");
  }
  constexpr std::string_view kEscapes = "\"\\/bfnrt";
  constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
  if (const std::size_t known = kEscapes.find(text_[pos_]); known != std::string_view::npos) {
    out += kMeanings[known];
    ++pos_;
    return true;
  }
  if (!Take('u')) {
    return Fail("bad escape");
  }
  std::uint32_t unit = 0;
  if (!ParseCodeUnit(unit)) {
    return false;
  }
  std::uint32_t low = 0;
  if (unit >= 0xD800 && unit <= 0xDBFF && TakeLowSurrogate(low)) {
    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  }
  AppendUtf8(out, unit);
  return true;
}

bool Parser::ParseCodeUnit(std::uint32_t& unit) {
  if (text_.size() - pos_ < 4) {
    return Fail("short \\u escape");
  }
  unit = 0;
  for (const std::size_t end = pos_ + 4; pos_ < end; ++pos_) {
    const int digit = text::HexDigit(text_[pos_]);
    if (digit < 0) {
      return Fail("bad hex digit");
    }
    unit = unit * 16 + static_cast<std::uint32_t>(digit);
  }
  return true;
}

// Takes the escape that follows a high surrogate only if it holds the low one; anything else, errors included, is left
// for the escape's own turn.
bool Parser::TakeLowSurrogate(std::uint32_t& unit) {
  Parser ahead(text_, nullptr);
  ahead.pos_ = pos_;
  if (!ahead.Take('\\') || !ahead.Take('u') || !ahead.ParseCodeUnit(unit) || unit < 0xDC00 || unit > 0xDFFF) {
    return false;
  }
  pos_ = ahead.pos_;
  return true;
}

bool Parser::ParseArray() {
  const std::size_t base = values_.size();
  SkipSpace();
  if (AtEnd()) {
    return Fail("unterminated array");
  }
  if (!Take(']')) {
    do {
      if (!ParseValue()) {
        return false;
      }
      SkipSpace();
    } while (Take(','));
    if (!Take(']')) {
      return Fail(AtEnd() ? "unterminated array" : "expected ',' or ']'");
    }
  }
  const auto first = values_.begin() + static_cast<std::ptrdiff_t>(base);
  std::vector<Value> items(std::make_move_iterator(first), std::make_move_iterator(values_.end()));
  values_.erase(first, values_.end());
  values_.push_back(Value::Array(std::move(items)));
  return true;
}

bool Parser::ParseObject() {
  const std::size_t valueBase = values_.size();
  const std::size_t keyBase = keys_.size();
  SkipSpace();
  if (!Take('}') && !ParseMembers()) {
    return false;
  }
  Value object = Value::Object();
  object.Reserve(keys_.size() - keyBase);
  for (std::size_t i = 0; keyBase + i < keys_.size(); ++i) {
    object.Set(std::move(keys_[keyBase + i]), std::move(values_[valueBase + i]));
  }
  keys_.resize(keyBase);
  values_.resize(valueBase);
  values_.push_back(std::move(object));
  return true;
}

// Pushes the members up to and with the closing brace, keys and values apart.
bool Parser::ParseMembers() {
  do {
    SkipSpace();
    if (!Take('"')) {
      return Fail(AtEnd() ? "unterminated object" : "expected object key");
    }
    keys_.emplace_back();
    if (!ParseText(keys_.back())) {
      return false;
    }
    SkipSpace();
    if (!Take(':')) {
      return Fail(AtEnd() ? "unterminated object" : "expected ':'");
    }
    if (!ParseValue()) {
      return false;
    }
    SkipSpace();
  } while (Take(','));
  return Take('}') || Fail(AtEnd() ? "unterminated object" : "expected ',' or '}'");
}

bool IsFinite(const Value& value) {
  return std::isfinite(value.number()) && std::all_of(value.items().begin(), value.items().end(), IsFinite) &&
         std::all_of(value.values().begin(), value.values().end(), IsFinite);
}

}  // namespace

std::optional<Value> Parse(std::string_view text, std::string* error) { return Parser(text, error).Run(); }

std::optional<Value> ParseStored(std::string_view text) {
  std::optional<Value> value = Parse(text);
  return value && IsFinite(*value) ? std::move(value) : std::nullopt;
}

}  // namespace kiosk::json
