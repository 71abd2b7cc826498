// The exit password and its lockout.
#include "account/exit_password.h"

#include "account/unlock.h"
#include "json/serialise.h"
#include "sim/fault_driver.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"
#include "win32/thread.h"

namespace kiosk::account {
namespace {

using test::kKioskSession;
using test::SetDword;
using test::SetString;

constexpr char kLockoutLine[] = "WARN maintenance: 5 attempts without the right password; refusing for 300 s";

class ExitPassword : public test::KioskTerminal {};

TEST_F(ExitPassword, OnlyTheRightOneMatches) {
  const std::string longOne(8000, 'x');
  const struct {
    std::string json;
    std::string given;
    bool matches;
  } cases[] = {
      {R"(" \tWay out\r\n")", " \t\v\f\r\nwAY OUT ", true},
      {R"("Z@[`az{")", "z@[`AZ{", true},
      {"\"" + longOne + "\"", longOne, true},
      {R"("Way out")", "Way ou", false},
      {R"("Way out")", "Way outs", false},
      {R"("@[")", "`{", false},
      {R"("Ä")", "ä", false},
      {R"("Way out")", longOne, false},
      {R"("")", "", false},
      {R"(" \t ")", " ", false},
      {"null", "", false},
      {"12345", "12345", false},
      {R"(["Way out"])", "Way out", false},
  };
  for (const auto& each : cases) {
    SetExitPassword(each.json);
    EXPECT_EQ(VerifyExitPassword(each.given), each.matches ? "" : "wrong_password") << each.json << " " << each.given;
    EXPECT_EQ(Failures(), each.matches ? 0U : 1U);
    state::DeleteStateValue(state::kMaintenanceFailures);
  }
}

TEST_F(ExitPassword, FiveWrongOnesShutTheCheckForFiveMinutes) {
  for (DWORD i = 1; i <= 5; ++i) {
    EXPECT_EQ(test::CountLogged(kLockoutLine), 0);
    EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
    EXPECT_EQ(Failures(), i % 5);
  }
  EXPECT_EQ(state::ReadStateQword(state::kMaintenanceLockedUntil), clock_.SystemTime() + 3'000'000'000);
  EXPECT_TRUE(state::ReadState(state::kMaintenanceFailures));
  clock_.RunFor(299'999);
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  EXPECT_EQ(CheckIns(), 5U);
  clock_.RunFor(1);
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
  EXPECT_EQ(Failures(), 1U);
  EXPECT_EQ(VerifyExitPassword("Way out"), "");
  EXPECT_FALSE(state::ReadState(state::kMaintenanceFailures) || state::ReadState(state::kMaintenanceLockedUntil));
  EXPECT_EQ(test::CountLogged(kLockoutLine), 1);
}

TEST_F(ExitPassword, OddStoredValuesLockNobodyOutForLonger) {
  const std::uint64_t limit = clock_.SystemTime() + 3'000'000'000;
  for (const std::uint64_t until : {limit + 1, ~std::uint64_t{0}}) {  // the clock was set back
    state::WriteStateQword(state::kMaintenanceLockedUntil, until);
    EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
    EXPECT_EQ(state::ReadStateQword(state::kMaintenanceLockedUntil), limit);
  }
  clock_.RunFor(300'000);
  EXPECT_EQ(VerifyExitPassword("Way out"), "");
  SetString(state::kStateKey, L"MaintenanceFailures", L"4");
  SetString(state::kStateKey, L"MaintenanceLockedUntil", L"9");
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");
  EXPECT_EQ(Failures(), 1U);
  SetDword(state::kStateKey, L"MaintenanceFailures", 0xFFFFFFFF);
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  for (const wchar_t* name : {L"MaintenanceFailures", L"MaintenanceLockedUntil"}) {
    const sim::FailingReads failing(name, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(VerifyExitPassword("Way out"), "busy") << "a shortage that a user makes is a free attempt";
  }
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
}

TEST_F(ExitPassword, EveryAttemptCountsWhateverBecomesOfIt) {
  const auto attempt = [](const char* code, DWORD failures) {
    EXPECT_EQ(VerifyExitPassword("Way out"), code);
    EXPECT_EQ(Failures(), failures) << code;
  };
  answer_ = {.status = 503};
  attempt("unreachable", 1);
  answer_ = {.status = 401, .body = R"({"status":"unknown"})"};
  attempt("unreachable", 2);
  for (const char* garbage :
       {"{", R"({"exitPassword":"Way out"})", R"({"status":"pending","exitPassword":"Way out"})"}) {
    SetDword(state::kStateKey, L"MaintenanceFailures", 2);
    answer_ = {.body = garbage};
    attempt("unreachable", 3);
  }
  SetDword(state::kStateKey, L"Provisioned", 0);
  attempt("not_provisioned", 4);
  EXPECT_EQ(CheckIns(), 5U);
  state::DeleteStateValue(state::kDeviceToken);
  attempt("not_enrolled", 5);
  EXPECT_EQ(test::CountLogged(kLockoutLine), 0);
  attempt("locked", 0);
  EXPECT_EQ(test::CountLogged(kLockoutLine), 1);
  EXPECT_EQ(CheckIns(), 5U);
}

// However long Windows refuses it.
TEST_F(ExitPassword, AnAttemptThatCannotBeCountedIsNotMade) {
  sim::SetChangeHook([](const sim::ChangeCall& call) -> DWORD {
    return call.object.ends_with(L"\\MaintenanceFailures") ? ERROR_NO_SYSTEM_RESOURCES : 0;
  });
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(VerifyExitPassword("Way out"), "busy");
  }
  EXPECT_EQ(CheckIns(), 0U);
  sim::SetChangeHook(
      [](const sim::ChangeCall& call) -> DWORD { return call.function == "RegFlushKey" ? ERROR_DISK_FULL : 0; });
  EXPECT_EQ(VerifyExitPassword("Way out"), "") << "a full disk locks nobody in";
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(VerifyExitPassword("guess"), "wrong_password");
  }
  EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  sim::SetChangeHook(nullptr);
}

TEST_F(ExitPassword, AnEndedEnrolmentOpensNothing) {
  portal_.On(L"POST", test::kCheckInPath, [this](const sim::Request&) {
    SetDword(state::kStateKey, L"TeardownPending", 1);
    return answer_;
  });
  EXPECT_EQ(VerifyExitPassword("Way out"), "not_enrolled");
  EXPECT_EQ(Failures(), 1U);
  test::MakeKioskTerminal();
  portal_.On(L"POST", test::kCheckInPath, test::kRevoked);
  EXPECT_EQ(VerifyExitPassword("Way out"), "not_enrolled");
  EXPECT_FALSE(state::TokenIsStored() || sim::FindUser(L"NorvaneKiosk"));
}

TEST_F(ExitPassword, OneCheckAtATime) {
  answer_.headersDelay = 5000;
  std::string first = "none";
  const win32::KernelHandle thread = win32::StartThread([&first]() noexcept { first = VerifyExitPassword("Way out"); });
  clock_.RunFor(1000);
  EXPECT_EQ(json::Serialise(test::Ask(Unlock, test::Credentials("Way out"), kKioskSession)),
            R"({"ok":false,"error":"busy"})");
  EXPECT_EQ(Failures(), 1U);
  clock_.RunFor(5000);
  EXPECT_EQ(first, "");
  EXPECT_EQ(CheckIns(), 1U);
  EXPECT_EQ(VerifyExitPassword("wrong"), "wrong_password");  // and not "busy" for ever
}

// Attempts at the password until the check is shut; at most one more after a fifth that was cut short.
TEST(ExitPasswordFaults, AnAttemptThatIsCutShortCounts) {
  const sim::VirtualClock clock(test::kMorning);
  sim::ScriptedPortal portal;
  portal.On(L"POST", test::kCheckInPath, sim::Response{.body = R"({"status":"enrolled","exitPassword":"Way out"})"});
  const auto prepare = [] {
    test::ResetComputer();
    test::MakeKioskTerminal();
    SetDword(state::kStateKey, L"MaintenanceFailures", 4);
  };
  const auto later = [] {
    const std::string next = VerifyExitPassword("wrong");
    EXPECT_TRUE(next == "locked" || next == "wrong_password") << next;
    EXPECT_EQ(VerifyExitPassword("Way out"), "locked");
  };
  sim::RunFaultScenario({.name = L"fifth wrong password",
                         .prepare = prepare,
                         .run = [] { VerifyExitPassword("wrong"); },
                         .later = later});
}

}  // namespace
}  // namespace kiosk::account
