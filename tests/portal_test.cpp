// The portal client, pairing and check-in against a portal in script, in virtual time.
#include "account/kiosk_restart.h"
#include "account/teardown.h"
#include "portal/auth_client.h"
#include "portal/check_in.h"
#include "portal/device_token.h"
#include "portal/pairing.h"
#include "portal/pairing_code.h"
#include "portal/sign_in_store.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/faults.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "sim/shutdown.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <dpapi.h>

namespace kiosk::portal {
namespace {

using test::HasValue;
using test::SetDword;
using test::SetString;

constexpr wchar_t kPairPath[] = L"/api/kiosk/pair";
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

sim::Response Reply(DWORD status, std::string body = {}) {
  sim::Response response;
  response.status = status;
  response.body = std::move(body);
  return response;
}

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
    EXPECT_EQ(request.Number(WINHTTP_OPTION_AUTOLOGON_POLICY, 9), static_cast<DWORD>(WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH));
    EXPECT_EQ(request.Number(WINHTTP_OPTION_REDIRECT_POLICY, 9), static_cast<DWORD>(WINHTTP_OPTION_REDIRECT_POLICY_NEVER));
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
      {"falls silent in the body", {.body = "half of it", .chunk = 1, .chunkDelay = 14'500}, "WinHTTP error 12002", 75'000},
      {"dribbles for ever", {.body = std::string(100, 'x'), .chunk = 1, .chunkDelay = 10'000}, "WinHTTP error 12002", 75'000},
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

TEST_F(PortalTest, NoCallBeginsAfterAStop) {
  ASSERT_TRUE(win32::CreateStopEvent());
  Answer(L"GET", L"/x", Reply(200, "ok"));
  EXPECT_EQ(Get().answered, 1);
  win32::RequestStop();
  EXPECT_EQ(Get().error, "WinHTTP error 12017");
  EXPECT_EQ(portal_.Requests().size(), 1U);
}

TEST_F(PortalTest, StopEndsACallInFlight) {
  ASSERT_TRUE(win32::CreateStopEvent());
  Answer(L"GET", L"/x", {.headersDelay = INFINITE});
  clock_.At(4'000, [] { win32::RequestStop(); });
  clock_.SetGrace(200);  // the call is ended from a thread of the real pool
  const AuthReply reply = Get();
  EXPECT_EQ(reply.error, "WinHTTP error 12017");
  EXPECT_EQ(clock_.Elapsed(), 4'000U);
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
      {Reply(401, R"({"status":")" + std::string(127, 'x') + "€\"}"), "HTTP 401, status " + std::string(127, 'x'), DeviceStatus::kNone},
      {Reply(503), "HTTP 503", DeviceStatus::kNone},
      {Reply(302), "HTTP 302", DeviceStatus::kNone},
      {Reply(201, R"({"status":"enrolled"})"), "HTTP 201", DeviceStatus::kNone},
      {Reply(200, R"({"status":"pending"})"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"(["enrolled"])"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, "<html>hello</html>"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled"} trailing)"), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled","x":)" + deep), "unexpected check-in reply", DeviceStatus::kNone},
      {Reply(200, R"({"status":"enrolled","x":")" + std::string(80'000, 'x') + "\"}"), "unexpected check-in reply", DeviceStatus::kNone},
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
  Answer(L"POST", kCheckInPath, Reply(200, R"({"status":"enrolled","name":"  Łódź – Halle 3\n","signIn":{"email":"0","extraHosts":["a.example"]},)"
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

TEST_F(PortalTest, StoredSignInThatCannotBeReadIsTheDefault) {
  constexpr char kDefault[] = R"({"microsoft":true,"email":true,"extraHosts":[]})";
  EXPECT_EQ(json::Serialise(LoadSignIn()), kDefault);
  for (const wchar_t* stored : {L"{broken", L"42", L"[]"}) {
    SetString(state::kStateKey, L"SignIn", stored);
    EXPECT_EQ(json::Serialise(LoadSignIn()), kDefault);
  }
}

std::string Begin() { return json::Serialise(PairBegin()); }
std::string Check(const std::string& code = "ABCD1234") { return json::Serialise(PairCheck(code)); }

TEST_F(PortalTest, PairBeginAnswers) {
  constexpr char kServerError[] = R"({"ok":false,"error":"server_error"})";
  struct {
    sim::Response response;
    std::string reply;
  } const cases[] = {
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":600.9})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":600})"},
      {Reply(201, R"({"pairingCode":"ABCD1234","expiresInSeconds":"12.9"})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":12})"},
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":true})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":1})"},
      {Reply(200, R"({"pairingCode":"ABCD1234"})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":null})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":[5]})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":"inf"})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
      {Reply(200, R"({"pairingCode":"ABCD1234","expiresInSeconds":"soon"})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
      {Reply(200, R"({"pairingCode":12345678})"), kServerError},
      {Reply(200, R"({})"), kServerError},
      {Reply(200, "<html>"), kServerError},
      {Reply(202, R"({"pairingCode":"ABCD1234"})"), kServerError},
      {Reply(302), kServerError},
      {{.sendError = ERROR_WINHTTP_NAME_NOT_RESOLVED}, R"({"ok":false,"error":"unreachable"})"},
  };
  for (const auto& each : cases) {
    SetString(state::kStateKey, L"LastError", L"old");
    Answer(L"POST", kPairPath, each.response);
    EXPECT_EQ(Begin(), each.reply);
    EXPECT_EQ(HasValue(state::kStateKey, L"LastError"), each.reply.find("\"ok\":false") != std::string::npos) << each.reply;
  }
  EXPECT_EQ(test::CountLogged("INFO pairing started"), 8);
  EXPECT_EQ(test::CountLogged("WARN pairing: HTTP 302"), 1);
  EXPECT_EQ(test::CountLogged("WARN pairing: AuthSystem unreachable (WinHTTP error 12007)"), 1);
  const auto body = json::Parse(portal_.Requests().front().body);
  ASSERT_TRUE(body);
  EXPECT_EQ(body->keys(), (std::vector<std::string>{"hostname", "platform", "osVersion", "appVersion", "screenCount"}));
  EXPECT_NE(json::Member(*body, "hostname").text(), "");
  EXPECT_EQ(json::Member(*body, "platform").text(), "Windows");
  EXPECT_TRUE(json::Member(*body, "screenCount").IsNumber());
}

TEST_F(PortalTest, PairCheckAnswersAndWhatBecomesOfTheCode) {
  constexpr char kWaiting[] = R"({"ok":true,"paired":false})";
  constexpr char kUnreachable[] = R"({"ok":true,"paired":false,"error":"unreachable"})";
  const auto error = [](const char* code) { return std::string(R"({"ok":false,"error":")") + code + "\"}"; };
  struct {
    sim::Response response;
    std::string reply;
    bool pendingAfter;
  } const cases[] = {
      {Reply(202), kWaiting, true},
      {Reply(500), kUnreachable, true},
      {Reply(503), kUnreachable, true},
      {{.headersDelay = INFINITE}, kUnreachable, true},
      {Reply(403), error("server_error"), true},
      {Reply(302), error("server_error"), true},
      {Reply(404), error("expired"), false},
      {Reply(410), error("expired"), false},
      {Reply(409), error("claimed"), false},
      {Reply(200, "{}"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":7})"), error("server_error"), false},
      {Reply(200, "not json"), error("server_error"), false},
  };
  Answer(L"POST", kPairPath, Reply(201, R"({"pairingCode":"ABCD1234"})"));
  for (const auto& each : cases) {
    Begin();
    Answer(L"GET", L"/api/kiosk/pair/ABCD1234", each.response);
    EXPECT_EQ(Check(), each.reply);
    Answer(L"GET", L"/api/kiosk/pair/ABCD1234", Reply(202));
    EXPECT_EQ(Check(), each.pendingAfter ? kWaiting : error("unknown_code")) << each.reply;
    EXPECT_FALSE(state::TokenIsStored());
  }
  Begin();
  const std::size_t before = portal_.Requests().size();
  for (const char* code : {"", "ABCD123", "ABCD12345", "abcd1234", "ABCD-234"}) {
    EXPECT_EQ(Check(code), error("unknown_code")) << code;
  }
  Answer(L"POST", kPairPath, Reply(201, R"({"pairingCode":"AB-D1234"})"));
  Begin();
  EXPECT_EQ(Check("AB-D1234"), error("unknown_code"));
  EXPECT_EQ(portal_.Requests().size(), before + 1);
}

// Everything that a claimed code can lead to, the kiosk account included.
TEST_F(PortalTest, WhatAClaimedCodeLeadsTo) {
  constexpr char kProvisioned[] =
      R"({"ok":true,"paired":true,"provisioned":true,"restarting":true,"restartInSeconds":10})";
  constexpr char kRevoked[] = R"({"ok":false,"error":"revoked"})";
  const sim::Response good = Reply(200, R"({"status":"enrolled","name":"Hall"})");
  struct {
    const char* what;
    sim::Response checkIn;
    void (*meanwhile)();  // while the check-in is on its way
    bool client;
    std::string reply;
    bool tokenAfter;
    bool account;
  } const cases[] = {
      {"provisioned", good, nullptr, true, kProvisioned, true, true},
      {"portal out of reach", Reply(503), nullptr, true, kProvisioned, true, true},
      {"nonsense", Reply(200, "<html>"), nullptr, true, kProvisioned, true, true},
      {"not known yet", Reply(401, R"({"status":"unknown"})"), nullptr, true,
       R"({"ok":true,"paired":true,"provisioned":false,"error":"unreachable"})", true, false},
      {"revoked", Reply(401, R"({"status":"revoked"})"), nullptr, true, kRevoked, false, false},
      {"torn down meanwhile", good, [] { account::RemoveKioskMode(false, "because"); }, true, kRevoked, false, false},
      {"no client", good, nullptr, false, R"({"ok":false,"error":"no_client"})", true, false},
  };
  int paired = 0;
  for (const auto& each : cases) {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test:8080");
    if (each.client) {
      SetString(L"SOFTWARE\\Norvane\\Tessaly\\Update", L"ClientInstallDir", L"C:\\Client");
    }
    Answer(L"POST", kPairPath, Reply(201, R"({"pairingCode":"ABCD1234"})"));
    Answer(L"GET", L"/api/kiosk/pair/ABCD1234", Reply(200, R"({"deviceToken":"tok-9"})"));
    portal_.On(L"POST", kCheckInPath, [&each, this](const sim::Request&) {
      if (each.meanwhile != nullptr) {
        // On another thread, as it would be: this one holds the pairing lock.
        const win32::KernelHandle other = win32::StartThread([&each]() noexcept { each.meanwhile(); });
        clock_.RunFor(1);
      }
      return each.checkIn;
    });
    Begin();
    EXPECT_EQ(Check(), each.reply) << each.what;
    clock_.RunFor(0);
    EXPECT_EQ(ReadDeviceToken().Get(), each.tokenAfter ? "tok-9" : "") << each.what;
    EXPECT_NE(portal_.Requests().back().headers.find(L"Authorization: Bearer tok-9\r\n"), std::wstring::npos);
    EXPECT_EQ(state::FlagIsOn(state::kProvisioned), each.account) << each.what;
    EXPECT_EQ(sim::FindUser(L"NorvaneKiosk").has_value(), each.account) << each.what;
    EXPECT_EQ(account::KioskRestartPending(), each.account) << each.what;
    EXPECT_EQ(test::CountLogged("INFO paired: device token held"), ++paired);
    const std::size_t before = portal_.Requests().size();
    EXPECT_EQ(Check(), R"({"ok":false,"error":"unknown_code"})");
    if (each.tokenAfter) {
      EXPECT_EQ(Begin(), R"({"ok":false,"error":"already_enrolled"})");
    }
    EXPECT_EQ(portal_.Requests().size(), before);
    clock_.RunFor(11'000);
    EXPECT_EQ(sim::PendingShutdown().has_value(), each.account) << each.what;
  }
}

TEST_F(PortalTest, TokenThatCannotBeStoredIsReported) {
  SetDword(state::kStateKey, L"TeardownPending", 1);
  Answer(L"POST", kPairPath, Reply(201, R"({"pairingCode":"ABCD1234"})"));
  Answer(L"GET", L"/api/kiosk/pair/ABCD1234", Reply(200, R"({"deviceToken":"tok-9"})"));
  // Protecting the token, making the key and the one above it, protecting it, noting that a newer token comes, setting the
  // value. The seventh, the deletion of "UnknownSince", may fail; the eighth takes the mark of an earlier teardown away.
  for (const int call : {1, 2, 3, 4, 5, 6, 8}) {
    Begin();
    const sim::FaultPass pass(sim::FaultKind::kFail, call);
    EXPECT_EQ(Check(), R"({"ok":false,"error":"token_store_failed"})") << call;
    EXPECT_FALSE(state::TokenIsStored());
    EXPECT_TRUE(state::FlagIsOn(state::kTeardownPending));
  }
  EXPECT_EQ(test::CountLogged("ERROR cannot protect the device token (5)"), 1);
}

}  // namespace
}  // namespace kiosk::portal
