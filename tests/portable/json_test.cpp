#include <gtest/gtest.h>

#include <limits>

#include "json/parse.h"
#include "json/serialise.h"

namespace kiosk::json {
namespace {

std::string Nested(int levels, char open, const std::string& inside, char close) {
  std::string text;
  for (int i = 0; i < levels; ++i) {
    text += open;
    if (open == '{') {
      text += "\"k\":";
    }
  }
  return text + inside + std::string(static_cast<std::size_t>(levels), close);
}

TEST(JsonParse, TakesAndWritesBack) {
  using namespace std::string_literals;
  const struct {
    std::string text, written;
  } cases[] = {
      {" \t\r\n{ \"b\" : [ 1 , true ] , \"a\" : { } , \"c\":[ ]}\r\n", R"({"b":[1,true],"a":{},"c":[]})"},
      {"[null,true,false]", "[null,true,false]"},
      {R"({"a":1,"b":2,"a":3})", R"({"a":3,"b":2})"},
      {R"({"":{"":""}})", R"({"":{"":""}})"},
      {R"("\ud83d\ude00")", "\"\xF0\x9F\x98\x80\""},
      {R"("\u007F\u0080\u07ff\u0800\u20AC\uffff")", "\"\x7F\u0080\u07FF\u0800\u20AC\uFFFF\""},
      {R"("\ud83d")", "\"\xED\xA0\xBD\""},
      {R"("\ude00\ud83d")", "\"\xED\xB8\x80\xED\xA0\xBD\""},
      {R"("\ude00\ude00")", "\"\xED\xB8\x80\xED\xB8\x80\""},
      {R"("\ud83d\ud83d\ude00")", "\"\xED\xA0\xBD\xF0\x9F\x98\x80\""},
      {R"("\ud83d\u0041\ud83d\n")", "\"\xED\xA0\xBD\x41\xED\xA0\xBD\\n\""},
      {R"("\"\\\/\b\f\n\r\t")", R"("\"\\/\b\f\n\r\t")"},
      {"\"a\x01\x1F\n\x7F\xFF\0b\""s, "\"a\\u0001\\u001f\\n\x7F\xFF\\u0000b\""},
      {R"("long enough for the eight-byte steps \u0001 and \"behind\" them")",
       R"("long enough for the eight-byte steps \u0001 and \"behind\" them")"},
      {"[3.0,2.9,1.5,0.1234567,1e20,-0,-0.0,15,1E2,0.001]", "[3,2.9,1.5,0.123457,1e+20,0,0,15,100,0.001]"},
      {"[9007199254740993,9223372036854775807,-9223372036854775808,1e-400,5e-324]",
       "[9007199254740992,9.22337e+18,-9223372036854775808,0,4.94066e-324]"},
      // Where printing changes its form; the fuzz target asks the C library about any number.
      {"[1e20,1e-7,123456.5,999999.5,999998.9999999,0.00099999999,0.0099999999,1.0000005,2.5,0.1234565,12345.25,1."
       "7976931348623157e308,2.2250738585072014e-308,9223372036854774784,-9223372036854775808,1000000.5]",
       "[1e+20,1e-07,123456,1e+06,999999,0.001,0.01,1,2.5,0.123456,12345.2,1.79769e+308,2.22507e-308,"
       "9223372036854774784,-9223372036854775808,1e+06]"},
      // Lenient numbers: the longest run counts, and strtod's reading of its front.
      {"[1-2,+5,-,.5,5.,01,1e,1e+,+-1,++1,e5,.,1.2.3,--1]", "[1,5,0,0.5,5,1,1,1,0,0,0,0,1.2,0]"},
      {Nested(64, '[', "7", ']'), Nested(64, '[', "7", ']')},
      {Nested(64, '{', "7", '}'), Nested(64, '{', "7", '}')},
  };
  for (const auto& c : cases) {
    std::string error = "untouched";
    const std::optional<Value> value = Parse(c.text, &error);
    ASSERT_TRUE(value) << c.text << ": " << error;
    EXPECT_EQ(Serialise(*value), c.written) << c.text;
    EXPECT_EQ(error, "untouched");
  }
}

TEST(JsonParse, RefusesWithMessageAndOffset) {
  const struct {
    std::string text, error;
  } cases[] = {
      {" \n ", "unexpected end of input at offset 3"},
      {"[nul]", "bad literal at offset 1"},
      {"fAlse", "bad literal at offset 0"},
      {"[1,]", "expected number at offset 3"},
      {"Infinity", "expected number at offset 0"},
      {"\xEF\xBB\xBF{}", "expected number at offset 0"},
      {"\f1", "expected number at offset 0"},
      {"[1", "unterminated array at offset 2"},
      {"[1, ", "unexpected end of input at offset 4"},
      {"[1 2]", "expected ',' or ']' at offset 3"},
      {"{\"a\"", "unterminated object at offset 4"},
      {"{\"a\":", "unexpected end of input at offset 5"},
      {"{\"a\":1 ", "unterminated object at offset 7"},
      {"{\"a\":1,", "unterminated object at offset 7"},
      {"{\"a\":1,}", "expected object key at offset 7"},
      {"{\"a\" 1}", "expected ':' at offset 5"},
      {"{\"a\":1;}", "expected ',' or '}' at offset 6"},
      {"{\"abc", "unterminated string at offset 5"},
      {"\"abc\\", "unterminated escape at offset 5"},
      {"\"\\U0041\"", "bad escape at offset 2"},
      {"\"\\u12\"", "short \\u escape at offset 3"},
      {"\"\\u12\" ", "bad hex digit at offset 5"},
      {"\"\\ud83d\\u12", "short \\u escape at offset 9"},
      {"\"\\ud83d\\u12x4\"", "bad hex digit at offset 11"},
      {"truex", "trailing data at offset 4"},
      {std::string("1\0", 2), "trailing data at offset 1"},
      {Nested(65, '[', "7", ']'), "nesting too deep at offset 64"},
      {Nested(65, '{', "7", '}'), "nesting too deep at offset 320"},
      {std::string(100000, '['), "nesting too deep at offset 64"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(Parse(c.text, &error)) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
    EXPECT_FALSE(Parse(c.text)) << c.text;
  }
}

TEST(JsonNumbers, WithoutAnEnd) {
  for (const char* deep : {R"([{"a":[1,-1e999]}])", "{\"a\":1e999}", "[", ""}) {
    EXPECT_FALSE(ParseStored(deep)) << deep;
  }
  EXPECT_EQ(AsString(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(AsString(-std::numeric_limits<double>::infinity()), "-inf");
  EXPECT_EQ(AsString(std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(JsonValue, ReadsAnyKindAndFallsBack) {
  const Value object = Value::Object().Set("ok", true).Set("n", 15).Set("s", "text").Set("a", Value::Array());
  EXPECT_EQ(Serialise(object), R"({"ok":true,"n":15,"s":"text","a":[]})");
  const std::pair<const char*, const char*> texts[] = {
      {"ok", "true"}, {"n", "15"}, {"s", "text"}, {"a", "x"}, {"absent", "x"}};
  for (const auto& [key, text] : texts) {
    EXPECT_EQ(AsString(Member(object, key), "x"), text) << key;
  }
  EXPECT_TRUE(Member(Value("no object"), "ok").IsNull());
  EXPECT_TRUE(Member(Member(object, "absent"), "ok").IsNull());
  // Reading as another kind gives something empty and never fails.
  for (const Value& value : {Value(), Value(true), Value(1.5), Value("t"), Value::Array(), object}) {
    EXPECT_EQ(value.boolean(), value.IsBool());
    EXPECT_EQ(value.number(), value.IsNumber() ? 1.5 : 0.0);
    EXPECT_EQ(value.text(), value.IsString() ? "t" : "");
    EXPECT_EQ(value.keys().size() + value.items().size(), value.IsObject() ? 4U : 0U);
  }
  Value text("t");
  text.Set("k", 1).Append(1);
  EXPECT_EQ(Serialise(text), "\"t\"");
}

TEST(JsonValue, CopiesAreDeepAndMovedFromValuesStayUsable) {
  Value original = *Parse(R"({"list":["a",{"b":1}]})");
  Value copy = original;
  copy.Set("list", 5);
  EXPECT_EQ(Serialise(original), R"({"list":["a",{"b":1}]})");
  EXPECT_FALSE(copy == original);
  const Value taken = std::move(original);
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): what the test is about
  EXPECT_TRUE(original.keys().empty());
  original.Set("again", 1);
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(Member(taken, "again").IsNull());
  original = taken;
  EXPECT_TRUE(original == taken);
  original.Wipe();
  EXPECT_TRUE(original.IsNull());
  EXPECT_FALSE(*Parse(R"({"a":1,"b":2})") == *Parse(R"({"b":2,"a":1})"));
}

// Across the size at which the key index appears and grows, built and parsed, with a repeat of every key.
TEST(JsonValue, LargeObjectsFindEveryKeyAndKeepItsFirstPlace) {
  for (const int count : {15, 16, 17, 31, 33, 64, 65, 5000}) {
    Value built = Value::Object();
    for (int i = 0; i < 2 * count; ++i) {
      built.Set("key" + std::to_string(i % count), i);
    }
    const std::optional<Value> parsed = Parse(Serialise(built));
    ASSERT_TRUE(parsed);
    for (const Value& object : {built, *parsed}) {
      ASSERT_EQ(object.keys().size(), static_cast<std::size_t>(count));
      for (int i = 0; i < count; ++i) {
        ASSERT_EQ(object.keys()[static_cast<std::size_t>(i)], "key" + std::to_string(i));
        ASSERT_EQ(Member(object, "key" + std::to_string(i)).number(), count + i);
      }
      EXPECT_TRUE(Member(object, "key").IsNull());
    }
  }
}

}  // namespace
}  // namespace kiosk::json
