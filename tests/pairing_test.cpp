// Pairing against a portal in script, in virtual time.
#include "portal/pairing.h"

#include "account/kiosk_restart.h"
#include "account/teardown.h"
#include "enrolment/device_token.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "sim/shutdown.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"
#include "win32/thread.h"

namespace kiosk::portal {
namespace {

using test::HasValue;
using test::SetString;

using test::kClaimPath;
using test::kPairPath;

class Pairing : public test::VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    test::Enrol("", false);
    portal_.On(L"POST", kPairPath, test::kPairingBegins);
  }
};

sim::Response Reply(DWORD status, std::string body = {}) { return {.status = status, .body = std::move(body)}; }

std::string Begin() { return json::Serialise(test::Ask(PairBegin)); }
std::string Check(const std::string& code = "ABCD1234") {
  return json::Serialise(test::Ask(PairCheck, R"({"code":")" + code + "\"}"));
}

TEST_F(Pairing, PairBeginAnswers) {
  constexpr char kServerError[] = R"({"ok":false,"error":"server_error"})";
  struct {
    sim::Response response;
    std::string reply;
  } const cases[] = {
      {Reply(200, R"({"pairingCode":[]})"), kServerError},
      {Reply(200, R"({"pairingCode":12345678})"), R"({"ok":true,"code":"12345678","expiresInSeconds":900})"},
      {Reply(200, "<html>"), kServerError},
      {Reply(202, R"({"pairingCode":"ABCD1234"})"), kServerError},
      {Reply(302), kServerError},
      {{.sendError = ERROR_WINHTTP_NAME_NOT_RESOLVED}, R"({"ok":false,"error":"unreachable"})"},
      {Reply(201, R"({"pairingCode":"ABCD1234"})"), R"({"ok":true,"code":"ABCD1234","expiresInSeconds":900})"},
  };
  for (const auto& each : cases) {
    SetString(state::kStateKey, L"LastError", L"old");
    portal_.On(L"POST", kPairPath, each.response);
    EXPECT_EQ(Begin(), each.reply);
    EXPECT_EQ(HasValue(state::kStateKey, L"LastError"), each.reply.find("\"ok\":false") != std::string::npos)
        << each.reply;
  }
  const std::pair<const char*, const char*> lifetimes[] = {{"600.9", "600"},    {"\"12.9\"", "12"}, {"true", "1"},
                                                           {"null", "900"},     {"[5]", "900"},     {"\"inf\"", "900"},
                                                           {"\"soon\"", "900"}, {"1e999", "900"}};
  for (const auto& [sent, seconds] : lifetimes) {
    portal_.On(L"POST", kPairPath,
               Reply(200, std::string(R"({"pairingCode":"ABCD1234","expiresInSeconds":)") + sent + "}"));
    EXPECT_EQ(Begin(), std::string(R"({"ok":true,"code":"ABCD1234","expiresInSeconds":)") + seconds + "}");
  }
  EXPECT_EQ(test::CountLogged("INFO pairing started"), 10);
  EXPECT_EQ(test::CountLogged("WARN pairing: HTTP 302"), 1);
  EXPECT_EQ(test::CountLogged("WARN pairing: AuthSystem unreachable (WinHTTP error 12007)"), 1);
  const auto body = json::Parse(portal_.Requests().front().body);
  ASSERT_TRUE(body);
  EXPECT_EQ(body->keys(), (std::vector<std::string>{"hostname", "platform", "osVersion", "appVersion", "screenCount"}));
  EXPECT_NE(json::Member(*body, "hostname").text(), "");
  EXPECT_EQ(json::Member(*body, "platform").text(), "Windows");
  EXPECT_TRUE(json::Member(*body, "screenCount").IsNumber());
}

TEST_F(Pairing, PairCheckAnswersAndWhatBecomesOfTheCode) {
  constexpr char kWaiting[] = R"({"ok":true,"paired":false})";
  constexpr char kUnreachable[] = R"({"ok":true,"paired":false,"error":"unreachable"})";
  const auto error = [](const char* code) { return std::string(R"({"ok":false,"error":")") + code + "\"}"; };
  struct {
    sim::Response response;
    std::string reply;
    bool pendingAfter;
  } const cases[] = {
      {Reply(202), kWaiting, true},
      {Reply(503), kUnreachable, true},
      {{.headersDelay = INFINITE}, kUnreachable, true},
      {Reply(403), error("server_error"), true},
      {Reply(302), error("server_error"), true},
      {Reply(404), error("expired"), false},
      {Reply(410), error("expired"), false},
      {Reply(409), error("claimed"), false},
      {Reply(200, "{}"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":7})"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":"tok 9"})"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":"tok\r\nX: 9"})"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":"tök"})"), error("server_error"), false},
      {Reply(200, R"({"deviceToken":")" + std::string(4097, '~') + "\"}"), error("server_error"), false},
  };
  for (const auto& each : cases) {
    Begin();
    portal_.On(L"GET", kClaimPath, each.response);
    EXPECT_EQ(Check(), each.reply);
    portal_.On(L"GET", kClaimPath, Reply(202));
    EXPECT_EQ(Check(), each.pendingAfter ? kWaiting : error("unknown_code")) << each.reply;
    EXPECT_FALSE(state::TokenIsStored());
  }
  Begin();
  const std::size_t before = portal_.Requests().size();
  for (const char* code : {"", "ABCD123", "ABCD12345", "abcd1234", "ABCD-234"}) {
    EXPECT_EQ(Check(code), error("unknown_code")) << code;
  }
  portal_.On(L"POST", kPairPath, Reply(201, R"({"pairingCode":"AB-D1234"})"));
  Begin();
  EXPECT_EQ(Check("AB-D1234"), error("unknown_code"));
  EXPECT_EQ(portal_.Requests().size(), before + 1);
}

// Everything that a claimed code can lead to, the kiosk account included.
TEST_F(Pairing, WhatAClaimedCodeLeadsTo) {
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
    const char* events;
  } const cases[] = {
      {"provisioned", good, nullptr, true, kProvisioned, true, true, "200 201"},
      {"portal out of reach", Reply(503), nullptr, true, kProvisioned, true, true, "200 201"},
      {"nonsense", Reply(200, "<html>"), nullptr, true, kProvisioned, true, true, "200 201"},
      {"not known yet", Reply(401, R"({"status":"unknown"})"), nullptr, true,
       R"({"ok":true,"paired":true,"provisioned":false,"error":"unreachable"})", true, false, "200"},
      {"revoked", Reply(401, R"({"status":"revoked"})"), nullptr, true, kRevoked, false, false, "200 203"},
      {"torn down meanwhile", good, [] { account::RemoveKioskMode(false, "because"); }, true, kRevoked, false, false,
       "200 203"},
      {"no client", good, nullptr, false, R"({"ok":false,"error":"no_client"})", true, false, "200 202"},
  };
  int paired = 0;
  for (const auto& each : cases) {
    test::ResetComputer();
    test::Enrol("", false);
    if (!each.client) {
      RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane\\Tessaly\\Update", L"ClientInstallDir");
    }
    portal_.On(L"GET", kClaimPath, Reply(200, R"({"deviceToken":"tok-9"})"));
    portal_.On(L"POST", test::kCheckInPath, [&each, this](const sim::Request&) {
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
    EXPECT_EQ(enrolment::ReadDeviceToken().Get(), each.tokenAfter ? "tok-9" : "") << each.what;
    EXPECT_NE(portal_.Requests().back().headers.find(L"Authorization: Bearer tok-9\r\n"), std::wstring::npos);
    EXPECT_EQ(state::FlagIsOn(state::kProvisioned), each.account) << each.what;
    EXPECT_EQ(sim::FindUser(L"NorvaneKiosk").has_value(), each.account) << each.what;
    EXPECT_EQ(account::KioskRestartPending(), each.account) << each.what;
    EXPECT_EQ(test::CountLogged("INFO paired: device token held"), ++paired);
    EXPECT_EQ(sim::EventLogNumbers(), each.events) << each.what;
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

TEST_F(Pairing, LongestTokenIsStoredOrTheFailureReported) {
  const std::string longest = "!" + std::string(4095, '~');
  portal_.On(L"GET", kClaimPath, Reply(200, R"({"deviceToken":")" + longest + "\"}"));
  Begin();
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 1);
    EXPECT_EQ(Check(), R"({"ok":false,"error":"token_store_failed"})");
  }
  EXPECT_FALSE(state::TokenIsStored());
  EXPECT_EQ(test::CountLogged("ERROR cannot protect the device token (5)"), 1);
  Begin();
  Check();
  EXPECT_EQ(enrolment::ReadDeviceToken().Get(), longest);
}

}  // namespace
}  // namespace kiosk::portal
