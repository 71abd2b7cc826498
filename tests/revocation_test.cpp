// What a refused token leads to: at once, after 24 hours of virtual time, or never.
#include "portal/revocation.h"

#include "portal/device_token.h"
#include "sim/clock.h"
#include "sim/faults.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"

namespace kiosk::portal {
namespace {

constexpr std::uint64_t kHour = 3'600'000;  // ms
constexpr char kToleratedLine[] =
    "WARN check-in: AuthSystem does not recognise this terminal's token; kiosk mode stays unless that lasts 24 hours";

class RevocationTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    ASSERT_TRUE(StoreDeviceToken("tok-1"));
  }
  static bool Handle(DeviceStatus status, const std::string& token = "tok-1") {
    CheckInResult result;
    result.deviceStatus = status;
    return HandleDeviceStatus(result, token);
  }
  static std::uint64_t UnknownSince() {
    const auto stored = state::ReadState(state::kUnknownSince);
    return stored ? stored->Qword().value_or(0) : 0;
  }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
};

TEST_F(RevocationTest, RevokedTearsDownAtOnceWhateverTheStampHolds) {
  ASSERT_TRUE(state::WriteStateQword(state::kUnknownSince, clock_.SystemTime()));
  EXPECT_TRUE(Handle(DeviceStatus::kRevoked));
  EXPECT_FALSE(state::TokenIsStored());
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"UnknownSince"));
  EXPECT_FALSE(test::HasValue(state::kStateKey, L"TeardownPending"));
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
  const std::vector<std::string> texts = test::LogTexts();
  ASSERT_EQ(texts.size(), 3U);
  EXPECT_EQ(texts[1], "WARN check-in: the token has been unknown to AuthSystem for over 24 hours");
  EXPECT_EQ(texts[2],
            "WARN removing kiosk mode: the portal has not known this terminal for 24 hours (401, status unknown)");
}

TEST_F(RevocationTest, StampsThatTellNothingAreReplacedByNow) {
  const std::uint64_t now = clock_.SystemTime();
  for (const std::uint64_t stamp : {std::uint64_t{0}, now + 1, now + 3600 * 10'000'000ULL, ~std::uint64_t{0}}) {
    ASSERT_TRUE(state::WriteStateQword(state::kUnknownSince, stamp));
    EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
    EXPECT_EQ(UnknownSince(), now) << stamp;
  }
  test::SetString(state::kStateKey, L"UnknownSince", L"yesterday");
  EXPECT_FALSE(Handle(DeviceStatus::kUnknown));
  EXPECT_EQ(UnknownSince(), now);
  EXPECT_EQ(test::CountLogged(kToleratedLine), 5);
}

// The terminal was paired again while an answer to its old token was on its way.
TEST_F(RevocationTest, AnswersToAnOldTokenTouchNothing) {
  ASSERT_TRUE(StoreDeviceToken("tok-2"));
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
    EXPECT_EQ(ReadDeviceToken().Get(), "tok-2");
  }
}

}  // namespace
}  // namespace kiosk::portal
