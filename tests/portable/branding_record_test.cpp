// The tenant's branding, normalised.
#include "branding/branding_record.h"

#include "json/parse.h"
#include "json/serialise.h"

#include <gtest/gtest.h>

namespace kiosk::branding {
namespace {

std::string Digest(char digit) { return std::string(64, digit); }
std::string Photo(const std::string& digest, const std::string& more = "") {
  return R"({"sha256":")" + digest + '"' + more + "}";
}

std::string Normalised(const std::string& text) {
  const auto branding = NormaliseBranding(json::Parse(text).value_or(json::Value()), "t1");
  return branding ? json::Serialise(*branding) : "none";
}

TEST(BrandingRecord, KeepsWhatItKnowsInItsOwnOrder) {
  const std::string a = Photo(Digest('a'));
  struct {
    std::string sent, kept;
  } const cases[] = {
      {"null", "none"},
      {"[]", "none"},
      {"\"x\"", "none"},
      {"{}", R"({"photos":[],"tenantId":"t1"})"},
      {R"({"photos":{},"signInSubtitle":"S","tenantId":"other","extra":1,"displayName":"D"})",
       R"({"displayName":"D","signInSubtitle":"S","photos":[],"tenantId":"t1"})"},
      {R"({"displayName":1,"signInSubtitle":null})", R"({"photos":[],"tenantId":"t1"})"},
      {R"({"photos":[1,{},")" + Digest('a') + R"(",)" + Photo(Digest('A')) + "," + Photo(Digest('a').substr(1)) + "," +
           Photo(Digest('g')) + "," + a + "," + Photo(Digest('a'), R"(,"credit":"again")") + "]}",
       R"({"photos":[)" + a + R"(],"tenantId":"t1"})"},
      {R"({"photos":[)" +
           Photo(Digest('b'), R"(,"credit":"C","height":" 1080 ","width":3840.0,"contentType":"image/png","x":1)") +
           "]}",
       R"({"photos":[)" + Photo(Digest('b'), R"(,"contentType":"image/png","width":3840,"height":1080,"credit":"C")") +
           R"(],"tenantId":"t1"})"},
      {R"({"photos":[)" + Photo(Digest('b'), R"(,"width":"inf","height":"12px","credit":2,"contentType":[])") + "]}",
       R"({"photos":[)" + Photo(Digest('b')) + R"(],"tenantId":"t1"})"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(Normalised(each.sent), each.kept) << each.sent;
  }
}

TEST(BrandingRecord, OfTwentyPhotosTheFirstSixteenValidOnes) {
  std::vector<std::string> expected;
  std::string photos = Photo(Digest('A')) + "," + Photo("");
  for (int i = 0; i < 20; ++i) {
    std::string digest = Digest('0');
    digest[7] = static_cast<char>('0' + i / 10);
    digest[8] = static_cast<char>('0' + i % 10);
    photos += "," + Photo(digest);
    expected.push_back(digest);
  }
  expected.resize(16);
  EXPECT_EQ(PhotoDigests(*NormaliseBranding(*json::Parse("{\"photos\":[" + photos + "]}"), "")), expected);
}

}  // namespace
}  // namespace kiosk::branding
