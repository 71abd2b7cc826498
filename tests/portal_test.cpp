// The portal client, the device token and the check-in against a portal in script, in virtual time.
#include "portal/auth_client.h"
#include "portal/check_in.h"
#include "portal/device_token.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "sim/clock.h"
#include "sim/faults.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/stop.h"

#include <dpapi.h>

namespace kiosk::portal {
namespace {

using test::HasValue;
using test::SetDword;
using test::SetString;

constexpr wchar_t kCheckInPath[] = L"/api/kiosk/check-in";

class PortalTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test:8080//");
  }

  // The portal answers `path` with this from now on.
  void Answer(const wchar_t* method, const wchar_t* path, const sim::Response& response) {
    portal_.On(method, path, [response](const sim::Request&) { return response; });
  }
  AuthReply Get() { return AuthRequest(L"GET", "/x", {}, "secret", kApiBodyLimit, kAcceptJson); }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
  sim::ScriptedPortal portal_;
};

sim::Response Reply(DWORD status, std::string body = {}) { return {.status = status, .body = std::move(body)}; }

TEST_F(PortalTest, RequestsCarryExactlyWhatTheyShould) {
  Answer(L"POST", L"/api/x", Reply(200, "ok"));
  AuthRequest(L"POST", "/api/x", "{}", "tok", kApiBodyLimit, kAcceptJson);
  SetString(state::kStateKey, L"AuthBaseUrl", L"https://portal.test/base/");
  AuthRequest(L"GET", "/api/y?q=%20", {}, {}, kApiBodyLimit, L"image/*");
  const auto requests = portal_.Requests();
  ASSERT_EQ(requests.size(), 2U);
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
    EXPECT_EQ(request.resolveTimeout, 15'000);
    EXPECT_EQ(request.connectTimeout, 15'000);
    EXPECT_EQ(request.sendTimeout, 15'000);
    EXPECT_EQ(request.receiveTimeout, 15'000);
    EXPECT_EQ(request.Number(WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, 0), 15'000U);
    EXPECT_EQ(request.Number(WINHTTP_OPTION_DISABLE_FEATURE, 0), DWORD{WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_KEEP_ALIVE});
    EXPECT_EQ(request.Number(WINHTTP_OPTION_AUTOLOGON_POLICY, 9),
              static_cast<DWORD>(WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH));
    EXPECT_EQ(request.Number(WINHTTP_OPTION_REDIRECT_POLICY, 9),
              static_cast<DWORD>(WINHTTP_OPTION_REDIRECT_POLICY_NEVER));
  }
  EXPECT_TRUE(requests[1].options.contains(WINHTTP_OPTION_CLIENT_CERT_CONTEXT));
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(PortalTest, UnusableBaseUrlsFailWithoutANetwork) {
  for (const wchar_t* url : {L"not a url", L"ftp://portal.test", L"http://"}) {
    SetString(state::kStateKey, L"AuthBaseUrl", url);
    EXPECT_EQ(Get().error, "unparseable AuthBaseUrl");
  }
  EXPECT_TRUE(portal_.Requests().empty());
}

TEST_F(PortalTest, FailuresOfEachPhaseAreToldApart) {
  struct {
    const char* what;
    sim::Response response;
    const char* error;
    std::uint64_t atMost;  // virtual ms
  } const cases[] = {
      {"refused", {.sendError = ERROR_WINHTTP_CANNOT_CONNECT}, "WinHTTP error 12029", 0},
      {"silent server", {.headersDelay = INFINITE}, "WinHTTP error 12002", 15'000},
      {"closed early", {.receiveError = ERROR_WINHTTP_INVALID_SERVER_RESPONSE}, "WinHTTP error 12152", 0},
      {"falls silent in the body",
       {.body = "half of it", .chunk = 1, .chunkDelay = 14'500},
       "WinHTTP error 12002",
       75'000},
      {"dribbles for ever",
       {.body = std::string(100, 'x'), .chunk = 1, .chunkDelay = 10'000},
       "WinHTTP error 12002",
       75'000},
  };
  for (const auto& each : cases) {
    Answer(L"GET", L"/x", each.response);
    const std::uint64_t start = clock_.Elapsed();
    const AuthReply reply = Get();
    EXPECT_EQ(reply.error, each.error) << each.what;
    EXPECT_EQ(reply.answered, 0) << each.what;
    EXPECT_TRUE(reply.body.Empty()) << each.what;
    EXPECT_LE(clock_.Elapsed() - start, each.atMost) << each.what;
  }
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(PortalTest, StopEndsACallInFlightAndNoneBeginsAfterIt) {
  ASSERT_TRUE(win32::CreateStopEvent());
  Answer(L"GET", L"/x", {.headersDelay = INFINITE});
  clock_.At(4'000, [] { win32::RequestStop(); });
  clock_.SetGrace(200);  // the call is ended from a thread of the real pool
  EXPECT_EQ(Get().error, "WinHTTP error 12017");
  EXPECT_EQ(clock_.Elapsed(), 4'000U);
  EXPECT_EQ(Get().error, "WinHTTP error 12017");
  EXPECT_EQ(portal_.Requests().size(), 1U);
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(PortalTest, BodiesEndAtTheLimitOrWithTheConnection) {
  Answer(L"GET", L"/x", {.body = std::string(200'000, 'x'), .chunk = 1000});
  EXPECT_EQ(Get().body.Get().size(), 66'000U);  // the chunk that crossed the limit is the last
  Answer(L"GET", L"/x", {.body = std::string(5000, 'x'), .chunk = 1000, .bodyError = ERROR_WINHTTP_CONNECTION_ERROR});
  const AuthReply cut = Get();
  EXPECT_EQ(cut.body.Get().size(), 5000U);
  EXPECT_EQ(cut.answered, 1);
  EXPECT_EQ(cut.error, "");
}

TEST_F(PortalTest, TokenIsProtectedAndEndsWhatWasLeftOpen) {
  SetDword(state::kStateKey, L"TeardownPending", 1);
  SetString(state::kStateKey, L"UnknownSince", L"x");
  {
    sim::FaultPass pass;
    ASSERT_TRUE(StoreDeviceToken("tok-123"));
    EXPECT_TRUE(pass.Flushed(L"DeviceToken"));
  }
  EXPECT_EQ(ReadDeviceToken().Get(), "tok-123");
  EXPECT_EQ(sim::ReadNumber(L"DataProtection", L"Flags"), CRYPTPROTECT_UI_FORBIDDEN | CRYPTPROTECT_LOCAL_MACHINE);
  EXPECT_FALSE(HasValue(state::kStateKey, L"TeardownPending"));
  EXPECT_FALSE(HasValue(state::kStateKey, L"UnknownSince"));
  const auto blob = state::ReadState(state::kDeviceToken);
  ASSERT_TRUE(blob);
  EXPECT_EQ(std::string(blob->bytes.begin(), blob->bytes.end()).find("tok-123"), std::string::npos);

  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "junk", 4);
  EXPECT_TRUE(ReadDeviceToken().Empty());
  EXPECT_EQ(test::CountLogged("ERROR cannot unprotect the device token (13)"), 1);
  test::SetString(state::kStateKey, L"DeviceToken", L"text");
  EXPECT_TRUE(ReadDeviceToken().Empty());
}

TEST_F(PortalTest, CheckInAnswersThatApplyNothing) {
  std::string deep(100, '[');
  struct {
    sim::Response response;
    std::string error;
    DeviceStatus status;
  } const cases[] = {
      {Reply(401, R"({"status":"revoked"})"), "HTTP 401, status revoked", DeviceStatus::kRevoked},
      {Reply(401, R"({"status":"unknown"})"), "HTTP 401, status unknown", DeviceStatus::kUnknown},
      {Reply(401, R"({"status":"REVOKED"})"), "HTTP 401, status REVOKED", DeviceStatus::kNone},
      {Reply(401, R"({"status":7})"), "HTTP 401 without a device status", DeviceStatus::kNone},
      {Reply(401), "HTTP 401 without a device status", DeviceStatus::kNone},
      {Reply(401, "<html>"), "HTTP 401 without a device status", DeviceStatus::kNone},
      {Reply(401, R"({"status":")" + std::string(127, 'x') + "€\"}"), "HTTP 401, status " + std::string(127, 'x'),
       DeviceStatus::kNone},
      {Reply(503), "HTTP 503", DeviceStatus::kNone},
      {Reply(302), "HTTP 302", DeviceStatus::kNone},
      {Reply(201, R"({"status":"enrolled"})"), "HTTP 201", DeviceStatus::kNone},
      {Reply(200, R"({"status":"pending"})"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"(["enrolled"])"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, "<html>hello</html>"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled"} trailing)"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled","x":)" + deep), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled","x":")" + std::string(80'000, 'x') + "\"}"), "unexpected check-in reply",
       DeviceStatus::kNone},
      {{.receiveError = ERROR_WINHTTP_CONNECTION_ERROR}, "WinHTTP error 12030", DeviceStatus::kNone},
  };
  ASSERT_TRUE(StoreDeviceToken("tok"));
  SetString(state::kStateKey, L"TerminalName", L"before");
  SetString(state::kStateKey, L"SignIn", L"before");
  SetString(state::kStateKey, L"UnknownSince", L"before");
  for (const auto& each : cases) {
    Answer(L"POST", kCheckInPath, each.response);
    const CheckInResult result = CheckIn("tok");
    EXPECT_EQ(result.error, each.error);
    EXPECT_EQ(result.deviceStatus, each.status) << each.error;
    EXPECT_TRUE(IsCheckInError(result.error)) << each.error;
    EXPECT_EQ(state::ReadStateString(state::kTerminalName), L"before") << each.error;
    EXPECT_EQ(state::ReadStateString(state::kSignIn), L"before") << each.error;
    EXPECT_TRUE(HasValue(state::kStateKey, L"UnknownSince")) << each.error;
  }
  // Good answers that arrive too late: during a teardown, and after the terminal was paired anew.
  Answer(L"POST", kCheckInPath, Reply(200, R"({"status":"enrolled","name":"late","exitPassword":"open"})"));
  for (const bool marked : {true, false}) {
    SetDword(state::kStateKey, L"TeardownPending", marked ? 1 : 0);
    const CheckInResult late = CheckIn(marked ? "tok" : "older");
    EXPECT_EQ(late.error, "no longer enrolled");
    EXPECT_TRUE(IsCheckInError(late.error));
    EXPECT_TRUE(late.exitPassword.Empty());
    EXPECT_EQ(state::ReadStateString(state::kTerminalName), L"before");
    EXPECT_TRUE(HasValue(state::kStateKey, L"UnknownSince"));
  }
  EXPECT_TRUE(test::LogTexts().empty());
  for (const char* other : {"", "no_client", "account_exists", "HTTPS"}) {
    EXPECT_FALSE(IsCheckInError(other)) << other;
  }
}

TEST_F(PortalTest, GoodCheckInIsTakenOverOnceAndSteadyOnesWriteNothing) {
  ASSERT_TRUE(StoreDeviceToken("tok"));
  SetString(state::kStateKey, L"UnknownSince", L"x");
  Answer(L"POST", kCheckInPath,
         Reply(200,
               R"({"status":"enrolled","name":"  Łódź – Halle 3\n","signIn":{"email":"0","extraHosts":["a.example"]},)"
               R"("exitPassword":"open","branding":{"displayName":"T"},"tenantId":"t1"})"));
  {
    const CheckInResult result = CheckIn("tok");
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.exitPassword.Get(), "open");
    EXPECT_EQ(json::Serialise(result.branding), R"({"displayName":"T"})");
    EXPECT_EQ(result.tenantId, "t1");
  }
  EXPECT_EQ(portal_.Requests().back().body, R"({"appVersion":"2026-10-15-0001"})");
  EXPECT_EQ(state::ReadStateString(state::kTerminalName), L"Łódź – Halle 3");
  EXPECT_EQ(state::ReadStateString(state::kSignIn), LR"({"microsoft":true,"email":false,"extraHosts":["a.example"]})");
  EXPECT_FALSE(HasValue(state::kStateKey, L"UnknownSince"));
  const std::vector<std::string> lines = {
      R"(INFO kiosk sign-in methods now {"microsoft":true,"email":false,"extraHosts":["a.example"]})",
      "INFO terminal name now \"Łódź – Halle 3\""};
  EXPECT_EQ(test::LogTexts(), lines);
  {
    sim::FaultPass pass;
    CheckIn("tok");
    for (const sim::ChangeCall& call : pass.Calls()) {
      // Deleting a value that is not there is all that a steady check-in does.
      EXPECT_EQ(call.Text(), "RegDeleteKeyValueW(HKLM\\SOFTWARE\\Norvane\\Tessaly\\Kiosk\\UnknownSince)");
    }
  }
  EXPECT_EQ(test::LogTexts(), lines);
  // A text of NULs only, and a name of another type, count as no name.
  for (const char* name : {R"("\u0000x")", "7", "null"}) {
    SetString(state::kStateKey, L"TerminalName", L"old");
    Answer(L"POST", kCheckInPath, Reply(200, std::string(R"({"status":"enrolled","name":)") + name + "}"));
    CheckIn("tok");
    EXPECT_FALSE(HasValue(state::kStateKey, L"TerminalName")) << name;
    EXPECT_EQ(test::LogTexts().back(), "INFO terminal name now \"\"");
  }
}

}  // namespace
}  // namespace kiosk::portal
