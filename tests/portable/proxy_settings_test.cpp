// What the default proxy may be set to, and which member of a request is found wrong first.
#include "proxy/proxy_settings.h"
#include "json/parse.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace kiosk::proxy {
namespace {

const char* Wrong(const std::string& mode, const std::string& member, const std::string& value) {
  json::Value request = json::Value::Object();
  request.Set("mode", mode).Set("server", "p.test:8080").Set(member, value);
  return ParseRequest(request).invalid;
}

TEST(ProxyRequest, Servers) {
  const std::string longLabel(64, 'a');
  const std::vector<std::string> good = {"p:1",
                                         "proxy.test:8080",
                                         "10.0.0.1:3128",
                                         "[::1]:80",
                                         "[fe80::1:2]:65535",
                                         "[::ffff:10.0.0.1]:80",
                                         "[1:2:3:4:5:6:7:8]:1",
                                         "http=p.test:80",
                                         "http=p.test:80;https=[::1]:443",
                                         "3com.test:80",
                                         "a_b.test:80"};
  const std::vector<std::string> bad = {"",
                                        "proxy.test",
                                        "proxy.test:",
                                        ":8080",
                                        "proxy.test:0",
                                        "proxy.test:65536",
                                        "proxy.test:08",
                                        "proxy.test:8x",
                                        "http://proxy.test:80",
                                        "user@proxy.test:80",
                                        "user:word@proxy.test:80",
                                        "proxy .test:80",
                                        " proxy.test:80",
                                        "proxy.test:80 ",
                                        "\"proxy.test\":80",
                                        "proxy.test:80\n",
                                        std::string("proxy.test:80\0", 14),
                                        "pröxy.test:80",
                                        "10.0.0.256:80",
                                        "10.0.0:80",
                                        "10.0.0.01:80",
                                        "::1:80",
                                        "[::1]",
                                        "[::1]80",
                                        "[::g]:80",
                                        "[1::2::3]:80",
                                        "[1:2:3:4:5:6:7]:80",
                                        "[1:2:3:4:5:6:7:8:9]:80",
                                        "[:1]:80",
                                        "[1:]:80",
                                        "[]:80",
                                        "[::1:80",
                                        "http=p.test",
                                        "ftp=p.test:21",
                                        "http=p.test:80;http=q.test:80",
                                        "http=p.test:80;",
                                        ";http=p.test:80",
                                        "http=p.test:80;q.test:80",
                                        "p.test:80;q.test:80",
                                        "http=p.test:80 https=q.test:80",
                                        "-p.test:80",
                                        "p-.test:80",
                                        "p..test:80",
                                        "p.test.:80",
                                        longLabel + ":80",
                                        "p.test:80/path"};
  for (const std::string& server : good) {
    EXPECT_STREQ(Wrong("manual", "server", server), nullptr) << server;
  }
  for (const std::string& server : bad) {
    EXPECT_STREQ(Wrong("manual", "server", server), "server") << server;
  }
}

TEST(ProxyRequest, BypassListsAndScripts) {
  for (const std::string& list : {std::string(), std::string("<local>"),
                                  std::string("*.intra.test;10.*  ;[::1] <local>;"), std::string(2048, 'a')}) {
    EXPECT_STREQ(Wrong("manual", "bypass", list), nullptr) << list;
  }
  for (const std::string& list :
       {std::string(2049, 'a'), std::string("<remote>"), std::string("a\tb"), std::string("a,b"), std::string("\"a\""),
        std::string("ä.test"), std::string("a<local>")}) {
    EXPECT_STREQ(Wrong("manual", "bypass", list), "bypass") << list;
  }
  const std::string start = "http://p.test/";
  for (const std::string& url : {std::string("https://p.test"), std::string("http://10.0.0.1:8080/proxy.pac?a=b#c"),
                                 std::string("http://[::1]/x"), start + std::string(2083 - start.size(), 'a')}) {
    EXPECT_STREQ(Wrong("auto", "pacUrl", url), nullptr) << url;
  }
  for (const std::string& url :
       {std::string(), std::string("p.test/x"), std::string("ftp://p.test/x"), std::string("file:///c:/x"),
        std::string("http:///x"), std::string("http://"), std::string("http:p.test"), std::string("http://:80/x"),
        std::string("http://p.test:99999/"), std::string("http://u:w@p.test/"), std::string("http://p.test/a b"),
        std::string("http://p.test/\"x"), std::string("http://p.test/\x7F"),
        start + std::string(2084 - start.size(), 'a')}) {
    EXPECT_STREQ(Wrong("auto", "pacUrl", url), "pacUrl") << url;
  }
}

TEST(ProxyRequest, ModesAndTypes) {
  const std::pair<const char*, const char*> cases[] = {{R"({})", "mode"},
                                                       {R"({"mode":"Manual"})", "mode"},
                                                       {R"({"mode":1})", "mode"},
                                                       {R"({"mode":"none","server":5,"pacUrl":"?"})", nullptr},
                                                       {R"({"mode":"auto"})", "pacUrl"},
                                                       {R"({"mode":"manual"})", "server"},
                                                       {R"({"mode":"manual","server":["p:1"]})", "server"},
                                                       {R"({"mode":"manual","server":"p:1","bypass":["a"]})", "bypass"},
                                                       {R"({"mode":"manual","server":"p:1","bypass":null})", nullptr}};
  for (const auto& [request, wrong] : cases) {
    EXPECT_STREQ(ParseRequest(*json::Parse(request)).invalid, wrong) << request;
  }
}

}  // namespace
}  // namespace kiosk::proxy
