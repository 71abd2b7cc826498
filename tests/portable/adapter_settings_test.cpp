// What an adapter may be set to, and which member of a request is found wrong first.
#include "network/adapter_settings.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "tests/support/words.h"

#include <gtest/gtest.h>

#include <utility>

namespace kiosk::network {
namespace {

TEST(NetworkRequest, EachWrongMemberIsNamed) {
  const std::string good =
      R"("adapter":"{A}","mode":"static","address":"10.1.2.3","prefixLength":24,"gateway":"10.1.2.1","dns":[])";
  // What is added to it, the later member of a name counting, by the member that is then wrong.
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, R"(|"gateway":null|"prefixLength":2.4e1,"more":[1]|"dns":["10.1.2.1","8.8.8.8","1.1.1.1","127.0.0.1"]|)"
                R"("mode":"dhcp","address":"nonsense"|"mode":"dhcp","dns":["9.9.9.9"]|"keep":null|"keep":false)"},
      {"adapter", R"("adapter":""|"adapter":7)"},
      {"mode", R"("mode":"Static"|"mode":null)"},
      {"address", R"("address":"10.1.2.0"|"address":"10.1.2.255"|"address":"10.1.2.03"|"address":167838211|)"
                  R"("address":"127.1.2.3"|"address":"0.1.2.3"|"address":"224.1.2.3"|"address":"255.1.2.3"|)"
                  R"("address":"224.1.2.3","prefixLength":0)"},
      {"prefixLength", R"("prefixLength":0|"prefixLength":31|"prefixLength":24.5|"prefixLength":-24|)"
                       R"("prefixLength":"24"|"prefixLength":9007199254740993)"},
      {"gateway", R"("gateway":"10.1.2.3"|"gateway":"10.1.3.1"|"gateway":"10.1.2.0"|"gateway":"10.1.2.255"|)"
                  R"("gateway":""|"gateway":["10.1.2.1"])"},
      {"dns",
       R"("dns":null|"dns":"8.8.8.8"|"dns":["8.8.8.8","8.8.4.4","8.8.8.8"]|"dns":["8.8.8.8",8]|)"
       R"("dns":["239.1.1.1"]|"dns":["1.1.1.1","1.1.1.2","1.1.1.3","1.1.1.4","1.1.1.5"]|"mode":"dhcp","dns":[""])"},
      {"keep", R"("keep":1|"keep":"true"|"mode":"dhcp","keep":[])"}};
  for (const auto& [wrong, additions] : cases) {
    for (const std::string& more : test::Words(additions)) {
      const NetSetRequest request = ParseNetSet(*json::Parse("{" + good + (more.empty() ? "" : ",") + more + "}"));
      EXPECT_STREQ(request.invalid, wrong) << more;
    }
  }
  const NetSetRequest edge =
      ParseNetSet(*json::Parse(R"({"adapter":"{A}","mode":"static","address":"10.0.0.6","prefixLength":30,)"
                               R"("gateway":"10.0.0.5","dns":["10.0.0.5"]})"));
  EXPECT_EQ(edge.settings, (Settings{false, {{0x0A000006, 30}}, {0x0A000005}, {0x0A000005}}));
}

TEST(NetworkSettings, AsTextAndBack) {
  const Settings several{false, {{0x0A000006, 30}, {0xC0A80101, 16}}, {0x0A000005, 0xC0A80001}, {0x08080808}};
  const Settings dhcp{true, {}, {}, {0x09090909}};
  for (const Settings& settings : {several, dhcp, Settings{}}) {
    EXPECT_EQ(FromJson(*json::Parse(json::Serialise(ToJson(settings)))), settings);
  }
  EXPECT_EQ(json::Serialise(ToJson(several)),
            R"({"dhcp":false,"addresses":[{"address":"10.0.0.6","prefixLength":30},{"address":"192.168.1.1",)"
            R"("prefixLength":16}],"gateways":["10.0.0.5","192.168.0.1"],"dns":["8.8.8.8"]})");
  for (const char* text : {"{}", "[]", R"({"dhcp":1,"addresses":[],"gateways":[],"dns":[]})",
                           R"({"dhcp":true,"addresses":[{}],"gateways":[],"dns":[]})",
                           R"({"dhcp":true,"addresses":[],"gateways":{},"dns":[]})"}) {
    EXPECT_EQ(FromJson(*json::Parse(text)), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace kiosk::network
