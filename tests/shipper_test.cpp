// The central log shipper against a scripted endpoint, in virtual time.
#include "log/local_log.h"
#include "log/log_settings.h"
#include "log/shipper/shipper_settings.h"
#include "sim/bad_disk.h"
#include "sim/clock.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "sim/random.h"
#include "tests/support/spool.h"
#include "win32/wide_text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>

namespace kiosk::log::shipper {
namespace {

using test::SetDword;
using test::SetString;
using test::WriteWholeFile;

constexpr wchar_t kSettings[] = L"SOFTWARE\\Norvane\\Tessaly\\Log";

class ShipperTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    SetString(kSettings, L"LogEndpoint", L"https://logs.example:8443/gelf");
    portal_.On(L"POST", L"/gelf", [this](const sim::Request& request) { return Take(request); });
  }
  ~ShipperTest() override { StopBanner(kKiosk); }

  // 202 and the messages are noted, or what `answer_` says.
  sim::Response Take(const sim::Request& request) {
    const std::lock_guard guard(mutex_);
    times_.push_back(request.at);
    bodies_.push_back(request.body);
    sim::Response response = answer_ ? answer_(request) : sim::Response{.status = 202};
    if (response.status == 202 && response.receiveError == 0) {
      std::istringstream lines(request.body);
      for (std::string line; std::getline(lines, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        EXPECT_FALSE(record.is_discarded()) << line;
        received_.push_back(record["short_message"]);
        dropped_ += record.value("_dropped", 0ULL);
      }
    }
    return response;
  }
  static std::function<sim::Response(const sim::Request&)> Status(DWORD status, const std::wstring& retryAfter = L"") {
    return [=](const sim::Request&) { return sim::Response{.status = status, .retryAfter = retryAfter}; };
  }
  [[nodiscard]] int Count(const std::string& message) const {
    return static_cast<int>(std::count(received_.begin(), received_.end(), message));
  }
  static void Lines(int from, int to) {
    for (int i = from; i < to; ++i) {
      Log(kNotice, kKiosk, "line %d", i);
    }
  }
  void StopInFlight(const std::function<sim::Response()>& answer, std::uint64_t atMost);

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
  sim::ScriptedPortal portal_;
  std::function<sim::Response(const sim::Request&)> answer_;
  std::mutex mutex_;
  std::vector<std::uint64_t> times_;
  std::vector<std::string> bodies_;
  std::vector<std::string> received_;
  std::uint64_t dropped_ = 0;
};

TEST_F(ShipperTest, LinesArriveOneByOneAndNothingIsSentWithoutLines) {
  StartBanner(kKiosk);
  EXPECT_EQ(test::LogTexts().back(), "INFO Central logging: on | local files: on");
  Log(kInfo, kKiosk, "caller refused");
  LogLocal(kError, "of itself");
  clock_.RunFor(1000);
  EXPECT_EQ(received_, (std::vector<std::string>{"Kiosk v2026-10-15-0001 starting", received_.at(1),
                                                 "Central logging: on | local files: on", "caller refused"}));
  EXPECT_EQ(nlohmann::json::parse(bodies_.at(3))["level"], 3);
  const sim::Request request = portal_.Requests().at(0);
  EXPECT_EQ(request.host + L" " + std::to_wstring(request.port), L"logs.example 8443");
  EXPECT_NE(request.flags & WINHTTP_FLAG_SECURE, 0U);
  EXPECT_EQ(request.options.count(WINHTTP_OPTION_SECURITY_FLAGS), 0U);  // the server's certificate is checked
  EXPECT_EQ(request.Number(WINHTTP_OPTION_DISABLE_FEATURE, 0),
            DWORD{WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_KEEP_ALIVE});
  clock_.RunFor(86'400'000);
  EXPECT_EQ(received_.size(), 4U);
  EXPECT_EQ(Segments(), std::vector<std::wstring>{});
  StopBanner(kKiosk);
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
  EXPECT_EQ(Segments().size(), 1U);  // "shutting down"
}

TEST_F(ShipperTest, OutageOfADayLosesNothingAndIsLoggedOnce) {
  answer_ = [](const sim::Request&) { return sim::Response{.receiveError = ERROR_WINHTTP_CONNECTION_ERROR}; };
  for (int hour = 0; hour < 24; ++hour) {
    Lines(hour * 10, hour * 10 + 10);
    clock_.RunFor(3'600'000);
  }
  // The waits double up to 300 s and are drawn evenly from 0: 150 s on average.
  EXPECT_GT(times_.size(), 400U);
  EXPECT_LT(times_.size(), 800U);
  answer_ = nullptr;
  clock_.RunFor(310'000);
  for (int i = 0; i < 240; ++i) {
    EXPECT_EQ(Count("line " + std::to_string(i)), 1) << i;
  }
  EXPECT_EQ(test::CountLogged(
                "WARN central log: the endpoint does not take lines (WinHTTP error 12030); they are kept in the spool"),
            1);
  EXPECT_EQ(test::CountLogged("INFO central log: the endpoint takes lines again"), 1);
  EXPECT_EQ(Segments(), std::vector<std::wstring>{});
  EXPECT_EQ(Segments(kDrop + L"\\Taken"), std::vector<std::wstring>{});
}

TEST_F(ShipperTest, TreeThatCannotBeSecuredIsNamedAndTheSpoolComesLater) {
  clock_.SetGrace(20);
  MakeDropTree();
  test::RemoveTree(kDrop);
  win32::FileHandle held(CreateFileW(kDrop.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  StartBanner(kKiosk);
  clock_.RunFor(1000);
  EXPECT_EQ(Count("Central logging: on | local files: off"), 1);
  EXPECT_EQ(Count("log: cannot secure C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Drop (32); "
                  "no line is kept in files, trying again each hour"),
            1);
  held.Reset();
  answer_ = Status(500);
  clock_.RunFor(3'600'000);
  Lines(0, 1);
  clock_.RunFor(1000);
  Lines(1, 2);
  clock_.RunFor(600'000);
  StopBanner(kKiosk);
  EXPECT_NE(test::ReadWholeFile(kDrop + L"\\" + Segments().at(0)).find("line 0"), std::string::npos);
  EXPECT_EQ(test::CountLogged("INFO line 1"), 1);
}

TEST_F(ShipperTest, StatusesDecideWhatBecomesOfALine) {
  struct {
    DWORD status;
    std::uint64_t least = 300'000, most = 375'000;  // ms until it is sent again; 0 and 0: never
    std::wstring retryAfter = {};
  } const cases[] = {{429, 599'800, 749'750, L"Sat, 21 Nov 2026 09:10:00 GMT"},
                     {503, 7000, 8750, L"7"},
                     {429, 3'600'000, 4'500'000, L"999999"},
                     {408, 0, 1000, L"x"},
                     {500, 0, 1000},
                     {400, 0, 0},
                     {413, 0, 0},
                     {302},
                     {401},
                     {403},
                     {404},
                     {407},
                     {421},
                     {425},
                     {451}};
  // Without a generator each wait is the middle of what it is drawn from.
  const sim::RandomScript none([](unsigned char*, std::size_t) { return false; });
  int line = 0;
  for (const auto& each : cases) {
    answer_ = [&](const sim::Request& request) {
      answer_ = nullptr;
      return Status(each.status, each.retryAfter)(request);
    };
    times_.clear();
    Lines(line, line + 1);
    clock_.RunFor(each.most + 400'000);
    ASSERT_EQ(times_.size(), each.most == 0 ? 1U : 2U) << each.status;
    EXPECT_EQ(Count("line " + std::to_string(line++)), each.most == 0 ? 0 : 1) << each.status;
    if (each.most != 0) {
      // A line may have waited 200 ms for others before it was sent.
      EXPECT_NEAR(static_cast<double>(times_[1] - times_[0]), static_cast<double>(each.least + each.most) / 2, 250)
          << each.status;
    }
  }
  const std::string refused = test::ReadWholeFile(kRoot + L"\\Archive\\Refused_20261121.log");
  EXPECT_EQ(std::count(refused.begin(), refused.end(), '\n'), 2);
}

// Such as a web server that wants another certificate.
TEST_F(ShipperTest, ServerThatRefusesEverythingGetsFewLines) {
  const sim::RandomScript none([](unsigned char*, std::size_t) { return false; });
  answer_ = Status(400);
  Lines(0, 20);
  clock_.RunFor(1'000'000);
  EXPECT_EQ(times_.size(), 5U);  // three at once, then one every 300 to 375 s
  answer_ = nullptr;
  clock_.RunFor(376'000);
  EXPECT_EQ(received_.size(), 15U);
}

TEST_F(ShipperTest, RemoteConfigurationSwitchesBatchesLevelsAndShippingItself) {
  std::string config = R"({"batch":true,"minLevel":5})";
  SetString(kSettings, L"LogConfigUrl", L"https://logs.example/config");
  SetString(kSettingsKeys[0], L"RemoteConfig", LR"({"enabled":false})");  // is no setting of group policy
  portal_.On(L"GET", L"/config", [&](const sim::Request&) { return sim::Response{.status = 200, .body = config}; });
  Log(kNotice, kKiosk, "first");
  clock_.RunFor(1000);
  bodies_.clear();
  answer_ = [](const sim::Request& request) {
    const bool tooLarge = request.body.size() > 40'000 || request.body.find("line 7\"") != std::string::npos;
    return sim::Response{.status = tooLarge ? 413U : 202U};
  };
  Lines(0, 300);
  Log(kInfo, kKiosk, "chatty");
  clock_.RunFor(1000);
  EXPECT_EQ(received_.size(), 300U);  // "first" and all but line 7
  EXPECT_EQ(Count("line 7") + Count("chatty"), 0);
  EXPECT_TRUE(
      std::all_of(bodies_.begin(), bodies_.end(), [](const std::string& body) { return body.size() <= 61'440; }));
  EXPECT_GT(bodies_.at(0).size(), 50'000U);

  // A bad one changes nothing and is logged once, as is each reason why there is none; the good one stays in the
  // registry.
  config = R"({"batch":false,"enabled":0})";
  clock_.RunFor(4'000'000);
  DWORD status = 503;
  portal_.On(L"GET", L"/config", [&](const sim::Request&) {
    status = status == 503 ? 404 : 503;
    return sim::Response{.status = status, .body = config};
  });
  clock_.RunFor(4'000'000);
  EXPECT_EQ(test::CountLogged("WARN central log: remote configuration cannot be fetched (HTTP status 404)"), 1);
  EXPECT_EQ(test::CountLogged("WARN central log: remote configuration cannot be fetched (HTTP status 503)"), 1);
  portal_.On(L"GET", L"/config", [&](const sim::Request&) { return sim::Response{.status = 200, .body = config}; });
  EXPECT_EQ(
      test::CountLogged("WARN central log: remote configuration is not used (\"enabled\" is neither true nor false)"),
      1);
  EXPECT_EQ(win32::ToNarrow(state::ReadString(kSettings, L"RemoteConfig").value_or(L"")),
            R"({"enabled":true,"minLevel":5,"batch":true})");
  config = R"({"enabled":false})";
  clock_.RunFor(1'000'000);
  Log(kError, kKiosk, "nobody hears");
  config = R"({"endpoint":"https://other.example/gelf"})";
  clock_.RunFor(1'000'000);
  Log(kDebug, kKiosk, "elsewhere");
  clock_.RunFor(1000);
  EXPECT_EQ(Count("nobody hears"), 0);
  EXPECT_EQ(Count("elsewhere"), 1);
  EXPECT_EQ(portal_.Requests().back().host, L"other.example");
}

TEST(Thumbprint, HasFortyDigitsHoweverTheyWereCopied) {
  const std::wstring good = L"00112233445566778899aAbBcCdDeEfF01234567";
  const Thumbprint bytes = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99,
                            0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01, 0x23, 0x45, 0x67};
  for (const std::wstring& taken :
       {good, L"\x200E" + good, L" " + good + L" ", good.substr(0, 3) + L"  " + good.substr(3)}) {
    EXPECT_EQ(ParseThumbprint(taken), bytes) << win32::ToNarrow(taken);
  }
  for (const std::wstring& refused :
       {std::wstring(), std::wstring(L" "), good.substr(1), good + L"0", good.substr(1) + L"g", good.substr(1) + L"-",
        good.substr(1) + L"\xFF11", good + L"\t", L"\xFEFF" + good, good + std::wstring(1, L'\0')}) {
    EXPECT_FALSE(ParseThumbprint(refused)) << win32::ToNarrow(refused);
  }
}

TEST_F(ShipperTest, WithoutItsCertificateNothingIsSent) {
  SetDword(kSettings, L"ClientCertRequired", 1);
  SetString(kSettings, L"ClientCertThumbprint", L"\u200e00 11223344556677889900112233445566778899");
  SetString(kSettings, L"LogConfigUrl", L"https://logs.example/config");
  Lines(0, 3);
  clock_.RunFor(3 * 86'400'000ULL - 1000);
  EXPECT_EQ(portal_.Requests().size(), 0U);
  EXPECT_EQ(test::CountLogged("WARN central log: the client certificate is not in the computer's personal store; lines "
                              "are kept in the spool"),
            3);
  StopBanner(kKiosk);
  ASSERT_EQ(Segments().size(), 1U);
  EXPECT_NE(test::ReadWholeFile(kDrop + L"\\" + Segments()[0]).find("line 2"), std::string::npos);
}

TEST_F(ShipperTest, FullRingAndFullDiskCountWhatIsLost) {
  sim::freeDiskMegabytes.Set(499);
  answer_ = Status(503, L"60");
  Lines(0, 1);
  clock_.RunFor(10'000);
  Lines(1, 1 + 3000);
  EXPECT_EQ(Segments(kDrop + L"\\Taken"), std::vector<std::wstring>{});
  answer_ = nullptr;
  clock_.RunFor(76'000);
  EXPECT_EQ(Count("line 0"), 1);
  EXPECT_EQ(Count("line 3000"), 1);
  EXPECT_EQ(received_.size() + dropped_, 3001U);
}

void ShipperTest::StopInFlight(const std::function<sim::Response()>& answer, std::uint64_t atMost) {
  answer_ = [answer](const sim::Request&) { return answer(); };
  Lines(0, 20);
  clock_.RunFor(5000);
  ASSERT_EQ(portal_.Requests().size(), 1U);
  Lines(20, 40);
  const std::uint64_t before = clock_.Elapsed();
  StopBanner(kKiosk);
  EXPECT_LE(clock_.Elapsed() - before, atMost);
  std::string spooled;
  for (const std::wstring& name : Segments()) {
    spooled += test::ReadWholeFile(kDrop + L"\\" + name);
  }
  for (int i = 0; i < 40; ++i) {
    EXPECT_NE(spooled.find("\"line " + std::to_string(i) + "\""), std::string::npos) << i;
  }
  Lines(40, 41);
  clock_.RunFor(100'000);
  EXPECT_EQ(portal_.Requests().size(), 1U);
}

TEST_F(ShipperTest, StopEndsTheRequestAndSpoolsTheRest) {
  StopInFlight([] { return sim::Response{.status = 202, .headersDelay = 14'000}; }, 0);
}
// In a call that WinHTTP does not come back from, although it should.
TEST_F(ShipperTest, StopLeavesAStuckRequestBehindAfterTwoSeconds) {
  const auto stuck = [] {
    Sleep(14'000);
    return sim::Response{.status = 202};
  };
  StopInFlight(stuck, 2'000);
}

TEST_F(ShipperTest, SegmentThatCannotBeReadNowIsSentLaterAndKeepsNobodyWaiting) {
  MakeDropTree();
  std::string lines;
  for (int i = 0; i < 2'000; ++i) {
    lines += "{\"short_message\":\"kept " + std::to_string(i) + "\"," + R"("x":")" + std::string(60, 'x') + "\"}\n";
  }
  WriteWholeFile(kDrop + L"\\bad.gelf", lines);
  {
    const sim::BadDisk bad(L"\\taken\\", sim::kReads, ERROR_CRC);
    Lines(0, 1);
    clock_.RunFor(200'000);
    Lines(1, 2);
    clock_.RunFor(1'000);
    EXPECT_EQ(Count("line 1"), 1);
  }
  clock_.RunFor(120'000);
  EXPECT_EQ(received_.size(), 2'002U);
  EXPECT_EQ(Segments(kDrop + L"\\Taken"), std::vector<std::wstring>{});
  EXPECT_EQ(test::CountLogged("WARN central log: a segment of the spool cannot be read (23); trying again each minute"),
            1);
}

using Way = std::pair<unsigned, DWORD>;
class ShipperDisk : public ShipperTest, public testing::WithParamInterface<Way> {};
INSTANTIATE_TEST_SUITE_P(Ways, ShipperDisk,
                         testing::Values(Way{sim::kAllCalls, ERROR_NOT_READY}, Way{sim::kWrites, ERROR_DISK_FULL},
                                         Way{sim::kMoves | sim::kDeletes, ERROR_SHARING_VIOLATION},
                                         Way{sim::kHalfWrites, ERROR_SUCCESS}));

TEST_P(ShipperDisk, OutageOnABadDiskLosesNothingAndAStopIsInTime) {
  answer_ = Status(503);
  for (int round = 0; round < 2; ++round) {
    {
      const sim::BadDisk bad(L"\\drop", GetParam().first, GetParam().second);
      Lines(round * 500, round * 500 + 500);
      clock_.RunFor(600'000);
    }
    clock_.RunFor(61'000);
  }
  EXPECT_LE(Segments().size() + Segments(kDrop + L"\\Taken").size(), 10U);
  answer_ = nullptr;
  clock_.RunFor(400'000);
  for (int i = 0; i < 1'000; ++i) {
    EXPECT_GE(Count("line " + std::to_string(i)), 1) << i;
  }
  EXPECT_EQ(Segments(), std::vector<std::wstring>{});
  answer_ = Status(503);
  Lines(0, 100);
  clock_.RunFor(5'000);
  const sim::BadDisk bad(L"\\drop", GetParam().first, GetParam().second);
  const std::uint64_t before = clock_.Elapsed();
  StopBanner(kKiosk);
  EXPECT_LE(clock_.Elapsed() - before, 2'000U);
}

TEST_F(ShipperTest, SegmentsOfOthersAndOfTheDeadAreSentAndTornLinesAreNot) {
  MakeDropTree();
  WriteWholeFile(kDrop + L"\\other.gelf", "{\"short_message\":\"theirs\"}\r\n\n[1]\n{\"short_message\":\"nul" +
                                              std::string(1, '\0') + "\"}\n" + "{\"" + std::string(100'000, 'x') +
                                              "\"}\n{\"short_message\":\"last\"}\n{\"short_message\":\"torn");
  WriteWholeFile(kDrop + L"\\Taken\\dead.gelf", "{\"short_message\":\"of the dead\"}\n");
  WriteWholeFile(kDrop + L"\\notes.txt", "{\"short_message\":\"no segment\"}\n");
  Lines(0, 1);
  clock_.RunFor(1000);
  WriteWholeFile(kDrop + L"\\late.gelf", "{\"short_message\":\"late\"}\n");
  clock_.RunFor(61'000);
  EXPECT_EQ((std::multiset<std::string>(received_.begin(), received_.end())),
            (std::multiset<std::string>{"theirs", "last", "of the dead", "line 0", "late"}));
  EXPECT_EQ(Segments(), std::vector<std::wstring>{L"notes.txt"});
}

}  // namespace
}  // namespace kiosk::log::shipper
