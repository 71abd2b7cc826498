// The portal's sign-in policy, normalised.
#include "portal/sign_in_methods.h"

#include "json/parse.h"
#include "json/serialise.h"

#include <gtest/gtest.h>

namespace kiosk::portal {
namespace {

std::string Normalised(const std::string& text) {
  const auto value = json::Parse(text);
  return value ? json::Serialise(NormaliseSignIn(*value)) : "not JSON: " + text;
}

TEST(SignIn, MethodsAreOnUnlessSwitchedOff) {
  struct {
    const char* value;
    bool on;
  } const cases[] = {{"true", true},   {"false", false},  {"0", false},     {"-0.0", false}, {"0.5", true},
                     {"-1", true},     {"\"true\"", true}, {"\"1\"", true},  {"\"TRUE\"", false}, {"\"\"", false},
                     {"\"yes\"", false}, {"null", true},   {"[]", true},     {"{}", true}};
  for (const auto& each : cases) {
    const std::string on = each.on ? "true" : "false";
    EXPECT_EQ(Normalised(std::string("{\"email\":") + each.value + "}"),
              "{\"microsoft\":true,\"email\":" + on + ",\"extraHosts\":[]}");
    EXPECT_EQ(Normalised(std::string("{\"microsoft\":") + each.value + "}"),
              "{\"microsoft\":" + on + ",\"email\":true,\"extraHosts\":[]}");
  }
  for (const char* other : {"null", "[]", "\"x\"", "{}", "7"}) {
    EXPECT_EQ(Normalised(other), R"({"microsoft":true,"email":true,"extraHosts":[]})");
  }
}

TEST(SignIn, HostsAreFiltered) {
  const std::string label63(63, 'a');
  const std::string longest = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'a');  // 253
  struct {
    std::string name;
    bool kept;
  } const cases[] = {
      {"login.example.com", true}, {"a.b", true},      {"1-2.3-4", true},   {longest, true},          {longest + "a", false},
      {label63 + "a.b", false},    {"localhost", false}, {"", false},        {".", false},             {"a..b", false},
      {".a.b", false},             {"a.b.", false},      {"-a.b", false},    {"a-.b", false},          {"a.-b", false},
      {"A.b", false},              {"a_b.c", false},     {"a.b/c", false},   {"a.b:80", false},        {"ä.de", false},
      {" a.b", false},             {"*.a.b", false}};
  for (const auto& each : cases) {
    EXPECT_EQ(Normalised("{\"extraHosts\":[\"" + each.name + "\"]}"),
              "{\"microsoft\":true,\"email\":true,\"extraHosts\":[" + (each.kept ? "\"" + each.name + "\"" : "") + "]}");
  }
}

TEST(SignIn, TenDistinctHostsAtTheMost) {
  std::string sent = "\"h0.x\",\"h0.x\",7,null,\"BAD.x\"";
  std::string kept = "\"h0.x\"";
  for (int i = 1; i < 12; ++i) {
    sent += ",\"h" + std::to_string(i) + ".x\"";
    kept += i < 10 ? ",\"h" + std::to_string(i) + ".x\"" : "";
  }
  EXPECT_EQ(Normalised("{\"extraHosts\":[" + sent + "]}"),
            "{\"microsoft\":true,\"email\":true,\"extraHosts\":[" + kept + "]}");
  EXPECT_EQ(Normalised(R"({"extraHosts":"h.x"})"), R"({"microsoft":true,"email":true,"extraHosts":[]})");
}

}  // namespace
}  // namespace kiosk::portal
