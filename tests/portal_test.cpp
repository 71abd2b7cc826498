// The portal client, the device token, the check-in and what it leads to, against a portal in script, in virtual time.
#include "enrolment/auth_client.h"
#include "enrolment/device_token.h"
#include "portal/check_in.h"
#include "portal/revocation.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "tests/support/terminal.h"
#include "win32/http_call.h"
#include "win32/stop.h"

#include <dpapi.h>

namespace kiosk::portal {
namespace {

using test::HasValue;
using test::SetDword;
using test::SetString;

class PortalTest : public test::EnrolledTerminal {
 protected:
  static enrolment::AuthReply Get() {
    return enrolment::AuthRequest(L"GET", "/x", {}, "secret", enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  }
};

TEST_F(PortalTest, RequestsCarryExactlyWhatTheyShould) {
  SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test:8080//");
  enrolment::AuthRequest(L"POST", "/api/x", "{}", "tok", enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  SetString(state::kStateKey, L"AuthBaseUrl", L"https://portal.test/base/");
  enrolment::AuthRequest(L"GET", "/api/y?q=%20", {}, {}, enrolment::kApiBodyLimit, L"image/*");
  SetString(state::kPolicyKey, L"AuthBaseUrl", L"https://policy.test/");
  enrolment::AuthRequest(L"GET", "/z", {}, {}, enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  SetString(state::kPolicyKey, L"AuthBaseUrl", L"");  // as absent
  Get();
  const auto requests = portal_.Requests();
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_EQ(requests[2].host + requests[2].path, L"policy.test/z");
  EXPECT_EQ(requests[3].host, L"portal.test");
  EXPECT_EQ(requests[0].host + requests[0].path, L"portal.test/api/x");
  EXPECT_EQ(requests[0].port, 8080);
  EXPECT_EQ(requests[0].flags, 0U);
  EXPECT_EQ(requests[0].body, "{}");
  EXPECT_EQ(requests[0].userAgent, L"NorvaneKiosk/2026-10-15-0001");
  EXPECT_EQ(requests[0].accessType, static_cast<DWORD>(WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY));
  EXPECT_EQ(requests[0].headers,
            L"Content-Type: application/json\r\nAccept: application/json\r\nAuthorization: Bearer tok\r\n");
  EXPECT_EQ(requests[1].host + requests[1].path, L"portal.test/base/api/y?q=%20");
  EXPECT_EQ(requests[1].port, 443);
  EXPECT_EQ(requests[1].flags, static_cast<DWORD>(WINHTTP_FLAG_SECURE));
  EXPECT_EQ(requests[1].headers, L"Content-Type: application/json\r\nAccept: image/*\r\n");
  for (const sim::Request& request : requests) {
    for (const int timeout :
         {request.resolveTimeout, request.connectTimeout, request.sendTimeout, request.receiveTimeout}) {
      EXPECT_EQ(timeout, 15'000);
    }
    EXPECT_EQ(request.Number(WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, 0), 15'000U);
    EXPECT_EQ(request.Number(WINHTTP_OPTION_DISABLE_FEATURE, 0),
              DWORD{WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_KEEP_ALIVE});
    EXPECT_EQ(request.Number(WINHTTP_OPTION_AUTOLOGON_POLICY, 9),
              static_cast<DWORD>(WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH));
    EXPECT_EQ(request.Number(WINHTTP_OPTION_REDIRECT_POLICY, 9),
              static_cast<DWORD>(WINHTTP_OPTION_REDIRECT_POLICY_NEVER));
  }
  EXPECT_TRUE(requests[1].options.contains(WINHTTP_OPTION_CLIENT_CERT_CONTEXT));
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(PortalTest, FailuresOfEachPhaseAreToldApart) {
  struct {
    sim::Response response;
    const char* error;
    std::uint64_t after;  // virtual ms
  } const cases[] = {
      {{.sendError = ERROR_WINHTTP_CANNOT_CONNECT}, "WinHTTP error 12029", 0},
      {{.deadAddresses = 5}, "WinHTTP error 12029", 0},
      {{.connectDelay = INFINITE}, "WinHTTP error 12002", 15'000},
      {{.headersDelay = INFINITE}, "WinHTTP error 12002", 15'000},
      {{.receiveError = ERROR_WINHTTP_INVALID_SERVER_RESPONSE}, "WinHTTP error 12152", 0},
      // The whole call's deadline, in the middle of a phase.
      {{.body = std::string(100, 'x'), .chunk = 1, .chunkDelay = 7'000}, "WinHTTP error 12002", 60'000},
      {{.body = std::string(100, 'x'), .chunk = 1, .headersDelay = 14'000, .readDelay = 9'000},
       "WinHTTP error 12002",
       60'000},
  };
  for (const auto& each : cases) {
    portal_.On(L"GET", L"/x", each.response);
    const std::uint64_t start = clock_.Elapsed();
    const enrolment::AuthReply reply = Get();
    EXPECT_EQ(reply.error, each.error);
    EXPECT_TRUE(reply.answered == 0 && reply.body.Empty()) << each.error;
    EXPECT_EQ(clock_.Elapsed() - start, each.after) << each.error;
  }
  for (const wchar_t* url : {L"not a url", L"ftp://portal.test", L"http://"}) {
    SetString(state::kStateKey, L"AuthBaseUrl", url);
    EXPECT_EQ(Get().error, "unparseable AuthBaseUrl");
  }
  EXPECT_EQ(portal_.Requests().size(), std::size(cases));
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

class StopInPhase : public PortalTest, public testing::WithParamInterface<std::string> {};

TEST_P(StopInPhase, EndsTheCallAtOnceAndNoneBeginsAfterIt) {
  ASSERT_TRUE(win32::CreateStopEvent());
  const auto slow = [](const char* phase) { return GetParam() == phase ? DWORD{10'000} : 0; };
  portal_.On(L"GET", L"/x",
             {.body = "abc",
              .connectDelay = slow("Connect"),
              .headersDelay = slow("Headers"),
              .chunkDelay = slow("Body"),
              .readDelay = slow("Read")});
  clock_.At(4'000, [] { win32::RequestStop(); });
  EXPECT_EQ(Get().error, "WinHTTP error 12017");
  EXPECT_EQ(clock_.Elapsed(), 4'000U);
  EXPECT_EQ(Get().error, "WinHTTP error 12017");
  EXPECT_EQ(portal_.Requests().size(), 1U);
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
  clock_.RunFor(10'000);  // what WinHTTP still does with the request, and its last callback
}

INSTANTIATE_TEST_SUITE_P(Phases, StopInPhase, testing::Values("Connect", "Headers", "Body", "Read"));

// A token is handed out once: what has come whole counts, whatever happens then.
TEST_F(PortalTest, WholeBodyIsKeptAtTheDeadlineAndAtAStop) {
  ASSERT_TRUE(win32::CreateStopEvent());
  portal_.On(L"GET", L"/x", {.body = "abcdef", .chunk = 2});
  const win32::HttpHandle session = win32::OpenHttpSession(L"agent");
  const win32::HttpTarget target{.host = L"portal.test", .path = L"/x", .port = 80};
  const auto get = [&](void (*meanwhile)()) {
    std::string body;
    const win32::HttpAnswer answer = win32::CallHttp(
        session.Get(),
        {.target = &target, .stop = win32::StopEvent(), .maxBody = 100, .onBody = [&](std::string_view chunk) {
           body += chunk;
           meanwhile();
         }});
    return std::to_string(answer.error) + " " + body;
  };
  EXPECT_EQ(get([] { Sleep(30'000); }), "0 abcdef");
  // What was not here yet when time was up is not waited for.
  portal_.On(L"GET", L"/x", {.body = "abcdef", .chunk = 2, .chunkDelay = 1'000});
  EXPECT_EQ(get([] { Sleep(60'000); }), "12002 ab");
  portal_.On(L"GET", L"/x", {.body = "abcdef", .chunk = 2});
  EXPECT_EQ(get([] { win32::RequestStop(); }), "0 abcdef");
  EXPECT_EQ(get([] {}), "12017 ");
}

TEST_F(PortalTest, EveryAddressOfTheHostIsTriedAndNothingIsSentThatCouldBeRedirected) {
  portal_.On(L"GET", L"/x", {.body = "ok", .deadAddresses = 1});
  EXPECT_EQ(Get().body.Get(), "ok");
  portal_.RefuseOption(WINHTTP_OPTION_REDIRECT_POLICY);
  EXPECT_EQ(Get().error, "cannot open the request");
  EXPECT_EQ(portal_.Requests().size(), 1U);
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(PortalTest, BodiesEndWithTheConnectionAndAreNoneBeyondTheLimit) {
  portal_.On(L"GET", L"/x", {.body = std::string(200'000, 'x'), .chunk = 1000});
  const enrolment::AuthReply large = Get();
  EXPECT_TRUE(large.body.Empty() && large.answered == 1) << "a part of a body is none";
  portal_.On(L"GET", L"/x",
             {.body = std::string(5000, 'x'), .chunk = 1000, .bodyError = ERROR_WINHTTP_CONNECTION_ERROR});
  const enrolment::AuthReply cut = Get();
  EXPECT_EQ(cut.body.Get().size(), 5000U);
  EXPECT_EQ(cut.answered, 1);
  EXPECT_EQ(cut.error, "");
}

TEST_F(PortalTest, TokenIsProtectedAndEndsWhatWasLeftOpen) {
  SetDword(state::kStateKey, L"TeardownPending", 1);
  {
    const sim::FaultPass pass;
    ASSERT_TRUE(enrolment::StoreDeviceToken("tok-123"));
    EXPECT_TRUE(pass.Flushed(L"DeviceToken"));
  }
  EXPECT_EQ(enrolment::ReadDeviceToken().Get(), "tok-123");
  EXPECT_EQ(sim::dataProtectionFlags.Get(), CRYPTPROTECT_UI_FORBIDDEN | CRYPTPROTECT_LOCAL_MACHINE);
  EXPECT_FALSE(HasValue(state::kStateKey, L"TeardownPending"));
  const auto blob = state::ReadState(state::kDeviceToken);
  ASSERT_TRUE(blob);
  EXPECT_EQ(std::string(blob->bytes.begin(), blob->bytes.end()).find("tok-123"), std::string::npos);

  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "junk", 4);
  EXPECT_TRUE(enrolment::ReadDeviceToken().Empty());
  EXPECT_EQ(test::CountLogged("ERROR cannot unprotect the device token (13)"), 1);
  test::SetString(state::kStateKey, L"DeviceToken", L"text");
  EXPECT_TRUE(enrolment::ReadDeviceToken().Empty());
}

TEST_F(PortalTest, GoodCheckInIsTakenOver) {
  SetString(state::kStateKey, L"UnknownSince", L"x");
  answer_.body =
      R"({"status":"enrolled","name":"  Łódź – Halle 3\n","signIn":{"email":"0","extraHosts":["a.example"]},)"
      R"("power":{"screenOffMinutes":1,"sleepMinutes":2,"schedule":{"enabled":false,"sleepAt":"22:00",)"
      R"("wakeAt":"07:00","days":[]}},"powerSource":"tenant","updates":{"automatic":true,"window":{"start":"02:00",)"
      R"("end":"05:00","days":[0]}},"updatesSource":"device","exitPassword":"open","branding":{"displayName":"T"},)"
      R"("tenantId":"t1"})";
  const CheckInResult result = CheckIn("tok");
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.exitPassword.Get(), "open");
  EXPECT_EQ(json::Serialise(result.branding), R"({"displayName":"T"})");
  EXPECT_EQ(result.tenantId, "t1");
  EXPECT_EQ(portal_.Requests().back().body, R"({"appVersion":"2026-10-15-0001"})");
  EXPECT_EQ(state::ReadStateString(state::kTerminalName), L"Łódź – Halle 3");
  EXPECT_EQ(state::ReadStateString(state::kSignIn), LR"({"microsoft":true,"email":false,"extraHosts":["a.example"]})");
  EXPECT_EQ(test::CountLogged(
                R"(INFO kiosk sign-in methods now {"microsoft":true,"email":false,"extraHosts":["a.example"]})"),
            1);
  EXPECT_EQ(test::CountLogged("INFO terminal name now \"Łódź – Halle 3\""), 1);
  EXPECT_EQ(test::StateNames(), (std::set<std::wstring>{L"DeviceToken", L"PowerPolicy", L"PowerSource", L"SignIn",
                                                        L"TerminalName", L"UpdatesPolicy", L"UpdatesSource"}));
}

// What a refused token leads to: at once, after 24 hours of virtual time, or never.
constexpr std::uint64_t kHour = 3'600'000;  // ms
constexpr char kToleratedLine[] =
    "WARN check-in: AuthSystem does not recognise this terminal's token; kiosk mode stays unless that lasts 24 hours";

class RevocationTest : public PortalTest {
 protected:
  static bool Handle(DeviceStatus status) {
    CheckInResult result;
    result.deviceStatus = status;
    return HandleDeviceStatus(result, "tok");
  }
  static std::uint64_t UnknownSince() { return state::ReadStateQword(state::kUnknownSince); }
};

TEST_F(RevocationTest, RevokedTearsDownAtOnceWhateverTheStampHolds) {
  ASSERT_TRUE(state::WriteStateQword(state::kUnknownSince, clock_.SystemTime()));
  EXPECT_TRUE(Handle(DeviceStatus::kRevoked));
  EXPECT_FALSE(state::TokenIsStored());
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"WARN check-in: the portal says this terminal was removed (revoked)",
                                      "WARN removing kiosk mode: removed in the portal (401, status revoked)"}));
}

TEST_F(RevocationTest, UnknownIsToleratedForADayToTheMoment) {
  const std::uint64_t first = clock_.SystemTime();
  EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
  EXPECT_EQ(UnknownSince(), first);
  for (const std::uint64_t at : {kHour, 24 * kHour - 1}) {
    clock_.RunUntil(at);
    EXPECT_FALSE(Handle(DeviceStatus::kUnknown)) << at;
    EXPECT_EQ(UnknownSince(), first);
  }
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{kToleratedLine});
  clock_.RunUntil(24 * kHour);
  EXPECT_TRUE(Handle(DeviceStatus::kUnknown));
  EXPECT_FALSE(state::TokenIsStored());
  EXPECT_EQ(
      test::LogTexts(),
      (std::vector<std::string>{
          kToleratedLine, "WARN check-in: the token has been unknown to AuthSystem for over 24 hours",
          "WARN removing kiosk mode: the portal has not known this terminal for 24 hours (401, status unknown)"}));
}

TEST_F(RevocationTest, StampsThatTellNothingAreReplacedByNow) {
  const std::uint64_t now = clock_.SystemTime();
  for (const std::uint64_t stamp : {std::uint64_t{0}, now + 1, ~std::uint64_t{0}}) {
    ASSERT_TRUE(state::WriteStateQword(state::kUnknownSince, stamp));
    EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
    EXPECT_EQ(UnknownSince(), now) << stamp;
  }
  test::SetString(state::kStateKey, L"UnknownSince", L"yesterday");
  EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
  EXPECT_EQ(UnknownSince(), now);
  EXPECT_EQ(test::CountLogged(kToleratedLine), 4);
}

// The terminal was paired again while an answer to its old token was on its way.
TEST_F(RevocationTest, AnswersToAnOldTokenTouchNothing) {
  ASSERT_TRUE(enrolment::StoreDeviceToken("tok-2"));
  EXPECT_TRUE(Handle(DeviceStatus::kRevoked));  // the first line makes the log's folders
  for (const bool stamped : {false, true}) {
    if (stamped) {
      ASSERT_TRUE(state::WriteStateQword(state::kUnknownSince, clock_.SystemTime() - 25ULL * 3600 * 10'000'000));
    }
    const sim::FaultPass pass;
    EXPECT_TRUE(Handle(DeviceStatus::kRevoked));
    EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
    EXPECT_FALSE(Handle(DeviceStatus::kNone));
    EXPECT_EQ(pass.Count(), 0);
    EXPECT_EQ(enrolment::ReadDeviceToken().Get(), "tok-2");
  }
}

}  // namespace
}  // namespace kiosk::portal
