// The tenant's branding on the terminal: how it comes, what it costs, and when it goes.
#include "tests/support/branding.h"
#include "account/teardown.h"
#include "sim/faults.h"

namespace kiosk::branding {
namespace {

TEST_F(BrandingTest, ArrivesOnceAndThenCostsNothing) {
  Apply(kBranding);
  ExpectComplete();
  ASSERT_EQ(portal_.Requests().size(), 2U);
  EXPECT_EQ(portal_.Requests()[0].headers,
            L"Content-Type: application/json\r\nAccept: image/*\r\nAuthorization: Bearer tok\r\n");
  const std::vector<std::string> texts = test::LogTexts();
  ASSERT_EQ(texts, (std::vector<std::string>{"INFO branding photo " + kOne + " cached (3 bytes)",
                                             "INFO branding photo " + kTwo + " cached (3 bytes)",
                                             "INFO branding: \"Café\" with 2 photo(s)"}));
  Apply(kBranding);
  // Known by its identity, size and time, a photo is not hashed again: other bytes go unnoticed until the time changes.
  const auto overwrite = [](bool keepTime) {
    const win32::FileHandle file(CreateFileW(kOneFile.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    BY_HANDLE_FILE_INFORMATION info;
    DWORD written = 0;
    ASSERT_TRUE(GetFileInformationByHandle(file.Get(), &info) && WriteFile(file.Get(), "ONE", 3, &written, nullptr));
    info.ftLastWriteTime.dwLowDateTime += keepTime ? 0 : 10'000'000;
    ASSERT_TRUE(SetFileTime(file.Get(), nullptr, nullptr, &info.ftLastWriteTime));
  };
  overwrite(true);
  {
    const sim::FaultPass pass;
    Apply(kBranding);
    EXPECT_EQ(pass.Count(), 0) << pass.Calls().front().Text();
  }
  EXPECT_EQ(portal_.Requests().size(), 2U);
  EXPECT_EQ(test::LogTexts(), texts);
  overwrite(false);
  Apply(kBranding);
  ExpectComplete();
  EXPECT_EQ(portal_.Requests().size(), 3U);
  Apply(R"({"displayName":"\ud800","photos":[]})");
  EXPECT_EQ(test::ListFolder(kFolder), Names{L"branding.json"});
  EXPECT_EQ(test::ReadWholeFile(kRecord).find('\xED'), std::string::npos) << "half a surrogate pair is no UTF-8";
}

TEST_F(BrandingTest, PhotoThatDoesNotComeRightLeavesNoFile) {
  struct {
    sim::Response response;
    const char* reason;
  } cases[] = {
      {{.status = 404, .body = "x"}, "HTTP 404"},
      {{}, "empty or too large"},
      {{.chunk = 65'536}, "empty or too large"},
      {{.body = "wrong"}, "the bytes do not match the digest"},
      {{.headersDelay = INFINITE}, "WinHTTP error 12002"},
      {{.body = std::string(100, 'x'), .chunk = 1, .chunkDelay = 14'000}, "WinHTTP error 12002"},
  };
  cases[2].response.body.resize(16'777'217);
  std::string digest(64, 'a');
  for (const auto& each : cases) {
    ++digest[0];
    digest[0] = digest[0] > 'f' ? '0' : digest[0];
    Serve(digest, each.response);
    Apply(Listing({digest}));
    EXPECT_TRUE(Logged("WARN branding photo " + digest + " not cached: " + each.reason)) << each.reason;
    EXPECT_EQ(test::ListFolder(kFolder), Names{L"branding.json"}) << each.reason;
  }
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST_F(BrandingTest, SlowAndFailingPhotosAreSpreadOverTheRuns) {
  const std::string missing(64, 'b');
  Serve(missing, {.status = 404});
  Serve(kOne, {.body = "one", .chunk = 1, .headersDelay = 14'000, .chunkDelay = 14'000});
  Apply(Listing({missing, kOne, kTwo}));  // takes 56 s
  EXPECT_EQ(test::ListFolder(kFolder).size(), 3U);
  while (clock_.Elapsed() < 3'600'000) {
    clock_.RunFor(30'000);
    Apply(Listing({missing, kTwo}));
  }
  EXPECT_EQ(portal_.Seconds(), (std::vector<std::uint64_t>{0, 0, 56, 86, 146, 266, 506, 986, 1586, 2186, 2786, 3386}));
  // After a minute of downloads no other begins in that run; what failed twice lets others pass.
  const std::vector<std::string> slow = {std::string(64, 'c'), std::string(64, 'd'), std::string(64, 'e')};
  for (const std::string& digest : slow) {
    Serve(digest, {.body = "12", .chunk = 1, .headersDelay = 14'000, .chunkDelay = 14'000});
  }
  for (const std::size_t downloads : {14U, 16U, 17U}) {
    Apply(Listing(slow));
    EXPECT_EQ(portal_.Requests().size(), downloads);
  }
  EXPECT_TRUE(portal_.Requests().back().path.ends_with(L"eeee"));
}

TEST_F(BrandingTest, GoesWithTheTenantsAndTriesAgainWhatIsHeldOpen) {
  const char kGone[] = "INFO branding: the tenant has none; the cached branding is removed";
  Apply("null");
  EXPECT_FALSE(Logged(kGone) || Exists(kKioskFolder));
  Apply(kBranding);
  test::WriteWholeFile(std::wstring(kKioskFolder) + L"\\another", "x");
  win32::FileHandle held(CreateFileW(kOneFile.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  Apply(kBranding);  // neither hashed nor replaced
  Apply("null");
  EXPECT_TRUE(Logged("WARN cannot remove " + sim::Narrow(kFolder) + " (32)"));
  EXPECT_EQ(test::ListFolder(kFolder), Names{kComplete[1]});
  EXPECT_FALSE(Logged(kGone));
  held.Reset();
  Apply("\"text\"");
  EXPECT_EQ(test::CountLogged(kGone), 1);
  EXPECT_EQ(test::ListFolder(kKioskFolder), Names{L"another"}) << "not the service's";
  EXPECT_EQ(portal_.Requests().size(), 2U);
}

TEST_F(BrandingTest, EndOfTheEnrolmentEndsTheRunAndWhatItMade) {
  Apply(kBranding, "old");
  EXPECT_TRUE(portal_.Requests().empty() && !Exists(kKioskFolder));
  // A megabyte at 8 KiB a second.
  Serve(kOne, {.body = std::string(1'048'576, 'x'), .chunkDelay = 1'000});
  clock_.At(3'500, [] {
    ASSERT_TRUE(state::WriteStateDword(state::kTeardownPending, 1));
    RemoveBranding();  // is not kept waiting by the download
    EXPECT_FALSE(Exists(kKioskFolder));
  });
  Apply(kBranding);
  EXPECT_EQ(clock_.Elapsed(), 3'500U);
  EXPECT_FALSE(Exists(kKioskFolder));
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{});
  state::DeleteStateValue(state::kTeardownPending);
  Serve(kOne, {.body = "one"});
  Apply(kBranding);
  ExpectComplete();
  account::RemoveKioskMode(false, "because");
  EXPECT_FALSE(Exists(kKioskFolder));
}

TEST_F(BrandingTest, WhatTheKioskHasOpenGoesOnceItIsSignedOut) {
  Apply(kBranding);
  test::SetString(state::kStateKey, L"AccountSid", sim::AddUser(L"NorvaneKiosk"));
  sim::SetSession(2, L"NorvaneKiosk", sim::ComputerName());
  sim::MakeStubborn(2, 5'000);
  win32::FileHandle shown(
      CreateFileW(kOneFile.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  clock_.At(3'000, [&shown] { shown.Reset(); });
  account::RemoveKioskMode(false, "because");
  EXPECT_TRUE(Logged("WARN cannot remove " + sim::Narrow(kFolder) + " (32)"));
  EXPECT_FALSE(Exists(kKioskFolder));
}

TEST_F(BrandingTest, FullDiskLeavesNoHalf) {
  const std::string line = "ERROR cannot write " + sim::Narrow(kOneFile) + ".tmp (112)";
  for (int at = 1; at < 20 && !Logged(line); ++at) {
    RemoveBranding();
    const sim::FaultPass pass(sim::FaultKind::kFail, at, ERROR_DISK_FULL);
    Apply(kBranding);
  }
  EXPECT_TRUE(Logged(line));
  EXPECT_EQ(test::ListFolder(kFolder), (Names{kComplete[0], kComplete[2]}));
}

}  // namespace
}  // namespace kiosk::branding
