// Wrong answers to a check-in, in every shape: what is stored stays as it is, or becomes what docs/portal-api.md says
// of that member, and the next good answer is taken over.
#include "portal/check_in.h"

#include "sim/machine.h"
#include "tests/support/terminal.h"

#include <map>
#include <vector>

namespace kiosk::portal {
namespace {

using Members = std::map<std::string, std::string>;  // each with its value as JSON

// Two good answers that differ in every member.
const Members kBefore = {
    {"name", R"("Hall 1")"},
    {"signIn", R"({"email":false,"extraHosts":["a.example"]})"},
    {"power",
     R"({"screenOffMinutes":1,"sleepMinutes":2,"schedule":{"enabled":false,"sleepAt":"22:00","wakeAt":"07:00","days":[]}})"},
    {"powerSource", R"("tenant")"},
    {"updates", R"({"automatic":true,"window":{"start":"02:00","end":"05:00","days":[0]}})"},
    {"updatesSource", R"("device")"},
    {"exitPassword", R"("open")"},
    {"tenantId", R"("t1")"}};
const Members kAfter = {
    {"name", R"("Hall 2")"},
    {"signIn", R"({"microsoft":false})"},
    {"power",
     R"({"screenOffMinutes":3,"sleepMinutes":4,"schedule":{"enabled":false,"sleepAt":"21:00","wakeAt":"06:00","days":[]}})"},
    {"powerSource", R"("device")"},
    {"updates", R"({"automatic":false,"window":{"start":"01:00","end":"04:00","days":[1]}})"},
    {"updatesSource", R"("default")"},
    {"exitPassword", R"("sesame")"},
    {"tenantId", R"("t2")"}};

std::string Enrolled(const Members& members) {
  std::string text = R"({"status":"enrolled")";
  for (const auto& [name, value] : members) {
    text += ",\"" + name + "\":" + value;
  }
  return text + "}";
}

sim::Response Reply(DWORD status, std::string body) { return {.status = status, .body = std::move(body)}; }

constexpr char kUnexpected[] = "unexpected check-in reply";
constexpr char kNoStatus[] = "HTTP 401 without a device status";

struct WrongAnswer {
  sim::Response response;
  std::string error;
  DeviceStatus status = DeviceStatus::kNone;
};

// `good` is a body that would be taken over.
std::vector<WrongAnswer> WrongAnswers(const std::string& good) {
  using namespace std::string_literals;
  return {
      {Reply(401, R"({"status":"revoked"})"), "HTTP 401, status revoked", DeviceStatus::kRevoked},
      {Reply(401, R"({"status":"unknown"})"), "HTTP 401, status unknown", DeviceStatus::kUnknown},
      {Reply(401, R"({"status":"unknown","status":"x"})"), "HTTP 401, status x"},
      {Reply(401, R"({"status":"REVOKED"})"), "HTTP 401, status REVOKED"},
      {Reply(401, R"({"status":"revoked\u0000"})"), "HTTP 401, status revoked\0"s},
      {Reply(401, R"({"status":"revoked"}x)"), kNoStatus},
      {Reply(401, R"({"status":7})"), kNoStatus},
      {Reply(401, R"(["revoked"])"), kNoStatus},
      {Reply(401, "<html>"), kNoStatus},
      {Reply(401, ""), kNoStatus},
      {Reply(401, R"({"status":")" + std::string(127, 'x') + "€\"}"), "HTTP 401, status " + std::string(127, 'x')},
      {Reply(401, good), "HTTP 401, status enrolled"},
      {Reply(200, ""), kUnexpected},
      {Reply(200, " \r\n"), kUnexpected},
      {Reply(200, "null"), kUnexpected},
      {Reply(200, "\"enrolled\""), kUnexpected},
      {Reply(200, "[" + good + "]"), kUnexpected},
      {Reply(200, good + good), kUnexpected},
      {Reply(200, good + "\0"s), kUnexpected},
      {Reply(200, "\0"s + good), kUnexpected},
      {Reply(200, "\xEF\xBB\xBF" + good), kUnexpected},
      {Reply(200, "\xFF" + good), kUnexpected},
      {Reply(200, R"({"status":"enrolled","status":"pending"})"), kUnexpected},
      {Reply(200, R"({"status":"Enrolled"})"), kUnexpected},
      {Reply(200, R"({"status":"enrolled "})"), kUnexpected},
      {Reply(200, R"({"status":"enrolled\u0000"})"), kUnexpected},
      {Reply(200, R"({"status":null})"), kUnexpected},
      {Reply(200, R"({"status":true})"), kUnexpected},
      {Reply(200, R"({"status":{"status":"enrolled"}})"), kUnexpected},
      {Reply(200, R"({"status":["enrolled"]})"), kUnexpected},
      {Reply(200, R"({"status":"revoked"})"), kUnexpected},
      {Reply(200, R"({"status":"enrolled","x":)" + std::string(100, '[')), kUnexpected},
      {Reply(200, R"({"status":"enrolled","x":)" + std::string(64, '[') + std::string(64, ']') + "}"), kUnexpected},
      {Reply(200, R"({"status":"enrolled","x":")" + std::string(80'000, 'x') + "\"}"), kUnexpected},
      {Reply(200, good + std::string(65'536 - good.size() + 1, ' ')), kUnexpected},
      {{.sendError = ERROR_WINHTTP_CANNOT_CONNECT}, "WinHTTP error 12029"},
      {{.connectDelay = INFINITE}, "WinHTTP error 12002"},
      {{.headersDelay = INFINITE}, "WinHTTP error 12002"},
      {{.receiveError = ERROR_WINHTTP_CONNECTION_ERROR}, "WinHTTP error 12030"},
      {{.body = good, .chunk = 1, .chunkDelay = 7'000}, "WinHTTP error 12002"},
      {{.body = good.substr(0, 50), .bodyError = ERROR_WINHTTP_CONNECTION_ERROR}, kUnexpected},
  };
}

class PortalAnswers : public test::EnrolledTerminal {
 protected:
  CheckInResult Get(const sim::Response& response) {
    answer_ = response;
    return CheckIn("tok");
  }

  // The state after such an answer, and what of it is not stored.
  std::string TakenOver(const Members& members) {
    const CheckInResult result = Get(Reply(200, Enrolled(members)));
    EXPECT_EQ(result.error, "");
    return Stored() + result.exitPassword.Get() + "\n" + result.tenantId;
  }

  static std::string Stored() {
    std::string text;
    for (const std::wstring& name : test::StateNames()) {
      text += sim::Narrow(name + L"=" + state::ReadString(state::kStateKey, name.c_str()).value_or(L"")) + "\n";
    }
    return text;
  }

  const std::string good_ = Enrolled(kBefore);
};

TEST_F(PortalAnswers, WrongOnesChangeNothingAndTheNextGoodOneIsTakenOver) {
  const std::string before = TakenOver(kBefore);
  const auto check = [&](const sim::Response& response, const std::string& error, DeviceStatus status) {
    SCOPED_TRACE(std::to_string(response.status) + " " + response.body.substr(0, 80));
    test::SetString(state::kStateKey, L"UnknownSince", L"before");
    const std::string stored = Stored();
    const CheckInResult result = Get(response);
    EXPECT_EQ(result.error, error);
    EXPECT_TRUE(IsCheckInError(result.error));
    EXPECT_EQ(result.deviceStatus, status);
    EXPECT_TRUE(result.exitPassword.Empty() && result.tenantId.empty() && result.branding.IsNull());
    EXPECT_EQ(Stored(), stored);
    TakenOver(kAfter);
    EXPECT_EQ(TakenOver(kBefore), before);
  };
  for (const WrongAnswer& each : WrongAnswers(good_)) {
    check(each.response, each.error, each.status);
  }
  for (const DWORD status : std::initializer_list<DWORD>{100, 201, 202, 204, 206, 301, 302, 303, 307, 308, 400, 403,
                                                         404, 407, 408, 429, 500, 503, 999}) {
    check(Reply(status, good_), "HTTP " + std::to_string(status), DeviceStatus::kNone);
  }
  for (std::size_t length = 1; length < good_.size(); ++length) {
    EXPECT_EQ(Get(Reply(200, good_.substr(0, length))).error, kUnexpected) << length;
  }
  EXPECT_EQ(TakenOver(kBefore), before);
}

TEST_F(PortalAnswers, TheSlowestThatIsInTimeIsGood) {
  const std::string before = TakenOver(kBefore);
  for (const sim::Response& slow :
       {sim::Response{.body = Enrolled(kAfter), .chunk = 1, .chunkDelay = 50},
        sim::Response{.body = Enrolled(kAfter), .connectDelay = 14'000, .headersDelay = 14'000},
        sim::Response{.body = Enrolled(kAfter), .deadAddresses = 3}}) {
    EXPECT_EQ(Get(slow).error, "");
    EXPECT_NE(Stored().find("TerminalName=Hall 2\n"), std::string::npos);
    EXPECT_EQ(TakenOver(kBefore), before);
  }
}

TEST_F(PortalAnswers, AWrongMemberCountsAsMissingAndSpoilsNoOther) {
  const auto isText = [](const std::string& json) { return json.front() == '"'; };
  for (const auto& [name, unused] : kAfter) {
    Members others = kAfter;
    others.erase(name);
    TakenOver(kBefore);
    const std::string missing = TakenOver(others);
    const bool anyText = name == "name" || name == "exitPassword" || name == "tenantId";
    for (const std::string wrong :
         {"null", "true", "7", "1e999", "-", "[]", "[[{}]]", "{}", R"({"":{}})", R"(["device"])", R"("")",
          R"("Device")", R"("device\u0000")", "\"\xFF\"", R"("\ud800")"}) {
      if (anyText && isText(wrong) && wrong != R"("")") {
        continue;
      }
      TakenOver(kBefore);
      Members members = others;
      members[name] = wrong;
      EXPECT_EQ(TakenOver(members), missing) << name << " " << wrong;
    }
    // Of a member that stands twice the last one counts.
    TakenOver(kBefore);
    Members twice = others;
    twice[name] = "null,\"" + name + "\":" + kAfter.at(name);
    const std::string last = TakenOver(twice);
    EXPECT_NE(last, missing) << name;
    EXPECT_EQ(last, TakenOver(kAfter)) << name;
  }
}

// Bytes that are no UTF-8 become replacement characters, a NUL ends the name, and none of it is written twice.
TEST_F(PortalAnswers, NamesAreWhatTheRegistryCanHold) {
  const std::pair<const char*, const wchar_t*> names[] = {{R"("\u0000x")", nullptr},
                                                          {R"("a\u0000b")", L"a"},
                                                          {"\"a\xFF"
                                                           "b\"",
                                                           L"a\xFFFD"
                                                           L"b"},
                                                          {R"(" \t a \n ")", L"a"},
                                                          {R"("\ud83d\ude00")", L"\xD83D\xDE00"},
                                                          {"7", nullptr}};
  for (const auto& [sent, stored] : names) {
    Members members = kBefore;
    members["name"] = sent;
    TakenOver(members);
    EXPECT_EQ(state::ReadString(state::kStateKey, L"TerminalName"),
              stored == nullptr ? std::optional<std::wstring>() : stored)
        << sent;
    const std::size_t lines = test::LogTexts().size();
    TakenOver(members);
    EXPECT_EQ(test::LogTexts().size(), lines) << sent;
  }
}

// Good answers that arrive too late: during a teardown, and after the terminal was paired anew.
TEST_F(PortalAnswers, ALateOneIsNotTakenOver) {
  TakenOver(kBefore);
  answer_ = Reply(200, Enrolled(kAfter));
  for (const bool marked : {true, false}) {
    test::SetDword(state::kStateKey, L"TeardownPending", marked ? 1 : 0);
    const std::string stored = Stored();
    const CheckInResult late = CheckIn(marked ? "tok" : "older");
    EXPECT_EQ(late.error, "no longer enrolled");
    EXPECT_TRUE(IsCheckInError(late.error));
    EXPECT_TRUE(late.exitPassword.Empty());
    EXPECT_EQ(Stored(), stored);
  }
  for (const char* other : {"", "no_client", "account_exists", "HTTPS"}) {
    EXPECT_FALSE(IsCheckInError(other)) << other;
  }
}

}  // namespace
}  // namespace kiosk::portal
