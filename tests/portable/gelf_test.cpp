// Records of the central log and its remote configuration. That every message is one whole record is the fuzz target's.
#include "log/shipper/gelf.h"
#include "log/shipper/remote_config.h"
#include "tests/support/words.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kiosk::log::shipper {
namespace {

const Sender kSender{.host = "LOBBY-PC",
                     .machine = "m-1",
                     .tenant = "t\"1",
                     .site = "Łódź – Halle 3",
                     .install = "i-1",
                     .appVersion = "2026-10-15-0001",
                     .started = 1'792'065'600'007,
                     .pid = 4711};

std::string Record(std::string_view message, int level = 5, std::uint64_t dropped = 0) {
  std::string out;
  AppendRecord(out, kSender, {1'792'065'661'040, 42, level, "Kiosk", message, dropped});
  return out;
}

TEST(Gelf, MembersOrderAndNumbers) {
  EXPECT_EQ(Record("up", 3, 7),
            R"({"version":"1.1","host":"LOBBY-PC","short_message":"up","timestamp":1792065661.040,"level":3,)"
            R"("_component":"Kiosk","_machine":"m-1","_tenant":"t\"1","_site":"Łódź – Halle 3","_install":"i-1",)"
            R"("_seq":42,"_pid":4711,"_started":1792065600.007,"_app_version":"2026-10-15-0001","_dropped":7})");
  EXPECT_EQ(Record("x").find("_dropped"), std::string::npos);
  for (const auto& [ms, seconds] :
       {std::pair{0ULL, "0.000"}, {7ULL, "0.007"}, {99'999ULL, "99.999"}, {1'792'065'600'100ULL, "1792065600.100"}}) {
    std::string out;
    AppendRecord(out, kSender, {ms, 42, 5, "Kiosk", "x", 0});
    EXPECT_NE(out.find(std::string(",\"timestamp\":") + seconds + ","), std::string::npos) << out;
  }
  for (const auto& [level, sent] : {std::pair{-1, 0}, {0, 0}, {7, 7}, {9, 7}}) {
    EXPECT_EQ(nlohmann::json::parse(Record("x", level))["level"], sent);
  }
}

TEST(RemoteConfig, IsTakenWholeOrNotAtAll) {
  std::string fault;
  const auto config = ParseRemoteConfig(
      R"({"enabled":false,"minLevel":4,"batch":true,"endpoint":"https://h:1/x","LogConfigUrl":"https://evil/"})",
      fault);
  ASSERT_TRUE(config);
  EXPECT_EQ(RemoteConfigText(*config), R"({"enabled":false,"minLevel":4,"batch":true,"endpoint":"https://h:1/x"})");
  EXPECT_EQ(RemoteConfigText(ParseRemoteConfig(" {} ", fault).value_or(*config)),
            R"({"enabled":true,"minLevel":7,"batch":false})");
  for (const std::string& text : test::Words(
           R"(|[]|{|{"enabled":1}|{"minLevel":2}|{"minLevel":8}|{"minLevel":"4"}|{"minLevel":4.5}|{"batch":"yes"}|)"
           R"({"endpoint":7}|{"endpoint":""}|{"endpoint":"http://h/"}|{"endpoint":"https:///x"}|)"
           R"({"endpoint":"https://a@h/"}|{"endpoint":"https://h/ x"}|{"batch":true,"minLevel":1})")) {
    fault.clear();
    EXPECT_FALSE(ParseRemoteConfig(text, fault)) << text;
    EXPECT_FALSE(fault.empty()) << text;
  }
  EXPECT_FALSE(ParseRemoteConfig("{}" + std::string(kMaxConfig, ' '), fault));
}

}  // namespace
}  // namespace kiosk::log::shipper
