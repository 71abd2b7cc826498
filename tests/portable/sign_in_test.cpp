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
  const auto expect = [](const char* value, const std::string& on) {
    EXPECT_EQ(Normalised(std::string("{\"email\":") + value + "}"),
              "{\"microsoft\":true,\"email\":" + on + ",\"extraHosts\":[]}");
    EXPECT_EQ(Normalised(std::string("{\"microsoft\":") + value + "}"),
              "{\"microsoft\":" + on + ",\"email\":true,\"extraHosts\":[]}");
  };
  for (const char* on : {"true", "0.5", "-1", "\"true\"", "\"1\"", "null", "[]", "{}"}) {
    expect(on, "true");
  }
  for (const char* off : {"false", "0", "-0.0", "\"TRUE\"", "\"\"", "\"yes\""}) {
    expect(off, "false");
  }
  for (const char* other : {"null", "[]", "\"x\"", "{}", "7"}) {
    EXPECT_EQ(Normalised(other), R"({"microsoft":true,"email":true,"extraHosts":[]})");
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
