// The branding folder: what the portal may put there, what nobody else may, and when it goes.
#include "branding/branding_cache.h"

#include "account/teardown.h"
#include "branding/branding_folder.h"
#include "enrolment/device_token.h"
#include "json/parse.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/fault_driver.h"
#include "sim/files.h"
#include "sim/http.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/secure_folder.h"
#include "win32/stop.h"

#include <functional>

namespace kiosk::branding {
namespace {

using Names = std::vector<std::wstring>;

const std::wstring kFolder = kBrandingFolder;
constexpr const wchar_t* kTree[] = {L"C:\\ProgramData\\Norvane", L"C:\\ProgramData\\Norvane\\Tessaly", kKioskFolder,
                                    kBrandingFolder};
constexpr wchar_t kTrap[] = L"C:\\branding-trap";
constexpr wchar_t kStranger[] = L"O:S-1-5-21-1-2-3-1001";
// SHA-256 of the bytes "one" and "two".
const std::string kOne = "7692c3ad3540bb803c020b3aee66cd8887123234ea0c6e7143c0add73ff431ed";
const std::string kTwo = "3fc4ccfe745870e2c0d99f71f30ff0656c8dedd41cc1d7d3d376b0dbe685e2f3";
const std::wstring kOneFile = kFolder + L"\\" + std::wstring(kOne.begin(), kOne.end());
const std::wstring kRecord = kFolder + L"\\branding.json";
const std::string kBranding =
    R"({"displayName":"Café","photos":[{"sha256":")" + kOne + R"("},{"sha256":")" + kTwo + R"("}]})";
const std::string kWritten =
    R"({"displayName":"Café","photos":[{"sha256":")" + kOne + R"("},{"sha256":")" + kTwo + R"("}],"tenantId":"t1"})";
const Names kComplete = {std::wstring(kTwo.begin(), kTwo.end()), std::wstring(kOne.begin(), kOne.end()),
                         L"branding.json"};

void Apply(const std::string& branding, const std::string& token = "tok") {
  ApplyBranding(json::Parse(branding).value_or(json::Value()), "t1", token);
}

std::string Listing(const std::vector<std::string>& digests) {
  std::string text;
  for (const std::string& digest : digests) {
    text += (text.empty() ? R"({"sha256":")" : R"(,{"sha256":")") + digest + "\"}";
  }
  return "{\"photos\":[" + text + "]}";
}

bool Logged(const std::string& text) { return test::CountLogged(text) > 0; }
bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

class BrandingTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    test::RemoveTree(kTrap);
    ASSERT_EQ(state::ProtectStateKey().what, nullptr);
    test::SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test");
    ASSERT_TRUE(enrolment::StoreDeviceToken("tok"));
    Serve(kOne, {.body = "one"});
    Serve(kTwo, {.body = "two"});
  }
  void Serve(const std::string& digest, const sim::Response& response) {
    portal_.On(L"GET", L"/api/kiosk/branding/photos/" + std::wstring(digest.begin(), digest.end()),
               [response](const sim::Request&) { return response; });
  }
  // Seconds of virtual time at which photos were asked for.
  std::vector<std::uint64_t> Downloads() {
    std::vector<std::uint64_t> times;
    for (const sim::Request& request : portal_.Requests()) {
      times.push_back(request.at / 1000);
    }
    return times;
  }
  static void ExpectComplete() {
    EXPECT_EQ(test::ListFolder(kFolder), kComplete);
    EXPECT_EQ(test::ReadWholeFile(kOneFile), "one");
    EXPECT_EQ(test::ReadWholeFile(kRecord), kWritten);
    for (int level = 0; level < 4; ++level) {
      EXPECT_EQ(sim::FileSecurity(kTree[level]), level < 2 ? win32::kPrivateFolderSddl : win32::kReadableFolderSddl);
    }
    EXPECT_EQ(test::ListFolder(kTrap), (Exists(kTrap) ? Names{L"mine"} : Names{}));
  }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
  sim::ScriptedPortal portal_;
};

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
      {{.status = 302}, "HTTP 302"},
      {{}, "empty or too large"},
      {{.chunk = 65'536}, "empty or too large"},
      {{.body = "wrong"}, "the bytes do not match the digest"},
      {{.sendError = 12029}, "WinHTTP error 12029"},
      {{.headersDelay = INFINITE}, "WinHTTP error 12002"},
      {{.body = std::string(100, 'x'), .chunk = 1, .chunkDelay = 14'000}, "WinHTTP error 12002"},
  };
  cases[3].response.body.resize(16'777'217);
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
  EXPECT_EQ(Downloads(), (std::vector<std::uint64_t>{0, 0, 56, 86, 146, 266, 506, 986, 1586, 2186, 2786, 3386}));
  // After a minute of downloads no other begins in that run; what failed twice lets others pass.
  const std::vector<std::string> slow = {std::string(64, 'c'), std::string(64, 'd'), std::string(64, 'e')};
  for (const std::string& digest : slow) {
    Serve(digest, {.body = "12", .chunk = 1, .headersDelay = 14'000, .chunkDelay = 14'000});
  }
  for (const std::size_t downloads : {14U, 16U, 17U}) {
    Apply(Listing(slow));
    EXPECT_EQ(Downloads().size(), downloads);
  }
  EXPECT_TRUE(portal_.Requests().back().path.ends_with(L"eeee"));
}

enum class Planted { kJunction, kFile, kReadOnlyFile, kOfAStranger };

class BrandingTreeTest : public BrandingTest, public testing::WithParamInterface<std::tuple<int, Planted>> {};

TEST_P(BrandingTreeTest, NothingPlantedOnTheWayIsTrusted) {
  const auto [level, planted] = GetParam();
  const std::wstring path = kTree[level];
  CreateDirectoryW(kTrap, nullptr);
  test::WriteWholeFile(std::wstring(kTrap) + L"\\mine", "mine");
  for (int i = 0; i < level; ++i) {
    CreateDirectoryW(kTree[i], nullptr);
  }
  if (planted == Planted::kJunction) {
    sim::MakeJunction(path, kTrap);
  } else if (planted == Planted::kOfAStranger) {
    CreateDirectoryW(path.c_str(), nullptr);
    sim::SetFileSecurity(path, kStranger, L"D:(A;OICI;FA;;;WD)");
  } else {
    test::WriteWholeFile(path, "x");
    SetFileAttributesW(path.c_str(), planted == Planted::kFile ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY);
  }
  Apply(kBranding);
  ExpectComplete();
  EXPECT_EQ(Logged("WARN removing " + sim::Narrow(path) + ": not a plain folder"), planted != Planted::kOfAStranger);
  RemoveBranding();
  EXPECT_FALSE(Exists(kKioskFolder));
}

INSTANTIATE_TEST_SUITE_P(EveryLevel, BrandingTreeTest,
                         testing::Combine(testing::Range(0, 4),
                                          testing::Values(Planted::kJunction, Planted::kFile, Planted::kReadOnlyFile,
                                                          Planted::kOfAStranger)));

// One of the inner folders. Whoever made it keeps a handle, or uses what is in it.
class StrangersFolder : public BrandingTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    BrandingTest::SetUp();
    for (const wchar_t* path : kTree) {
      CreateDirectoryW(path, nullptr);
    }
    sim::SetFileSecurity(Kept(), kStranger, L"D:(A;OICI;FA;;;WD)");
    CreateDirectoryW(kTrap, nullptr);
    test::WriteWholeFile(std::wstring(kTrap) + L"\\mine", "mine");
  }
  [[nodiscard]] static std::wstring Kept() { return kTree[GetParam()]; }
};
INSTANTIATE_TEST_SUITE_P(KioskAndBranding, StrangersFolder, testing::Values(2, 3));

TEST_P(StrangersFolder, IsNoLinkLaterWhoeverKeepsAHandle) {
  sim::KeepHandle(Kept(), kTrap);
  Apply(kBranding);
  ExpectComplete();
  Apply(R"({"photos":[]})");
  EXPECT_EQ(test::ListFolder(kFolder), Names{L"branding.json"});
  RemoveBranding();
  EXPECT_EQ(test::ListFolder(kTree[1]), Names{L"Logs"}) << "set aside, though it could be removed";
  EXPECT_EQ(test::ListFolder(kTrap), Names{L"mine"});
}

TEST_P(StrangersFolder, ThatCannotBeRemovedIsSetAsideOnceAndGoesWithKioskMode) {
  const std::wstring program = Kept() + L"\\theirs.exe";
  const auto setAside = [] {
    int count = 0;
    for (int level = 1; level < 3; ++level) {
      for (const std::wstring& name : test::ListFolder(kTree[level])) {
        count += name.find(win32::kSetAsideMark) != std::wstring::npos ? 1 : 0;
      }
    }
    return count;
  };
  const auto plant = [&] {
    test::WriteWholeFile(program, "x");
    sim::SetFileSecurity(Kept(), kStranger, L"D:");
    sim::RunProgram(program);
  };
  plant();
  Apply(kBranding);
  ExpectComplete();
  EXPECT_EQ(setAside(), 1);
  EXPECT_EQ(test::CountLogged("WARN branding: " + sim::Narrow(Kept()) + " belonged to somebody else and is set aside"),
            1);
  plant();
  for (int hour = 0; hour < 2; ++hour, clock_.RunFor(3'600'000)) {
    Apply(kBranding);
    EXPECT_TRUE(sim::FileSecurity(Kept()).starts_with(kStranger)) << "taken for one's own by now";
    EXPECT_EQ(setAside(), 1);
  }
  sim::EndPrograms();
  RemoveBranding();
  EXPECT_EQ(setAside(), 0);
  EXPECT_FALSE(Exists(kKioskFolder));
}

TEST_P(StrangersFolder, ThatStaysIsToldOnceAndTriedEachHour) {
  win32::FileHandle kept(CreateFileW(Kept().c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  const std::string line =
      "ERROR branding: somebody else's folder is in the way; trying again each hour: " + sim::Narrow(Kept()) + " (32)";
  for (int minute = 0; minute < 150; ++minute) {
    Apply(kBranding);
    clock_.RunFor(60'000);
  }
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{line});
  EXPECT_TRUE(portal_.Requests().empty());
  kept.Reset();
  Apply(kBranding);
  EXPECT_FALSE(Exists(kRecord)) << "not before the hour is over";
  clock_.RunFor(1'800'000);
  Apply(kBranding);
  ExpectComplete();
}

TEST_F(BrandingTest, NothingPlantedInTheFolderStays) {
  const auto file = [](const std::wstring& path, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    test::WriteWholeFile(path, "x");
    SetFileAttributesW(path.c_str(), attributes);
  };
  const auto folder = [&](const std::wstring& path) {
    CreateDirectoryW(path.c_str(), nullptr);
    sim::SetFileSecurity(path, kStranger, L"D:(A;OICI;FA;;;WD)");
    file(path + L"\\x");
    sim::MakeJunction(path + L"\\through", kTrap);
  };
  const std::wstring exact = L"\\\\?\\" + kFolder + L"\\";
  const auto longPath = [&] {
    std::wstring path = exact + std::wstring(200, L'x');
    for (int level = 0; level < 3; ++level, path += L"\\" + std::wstring(200, L'y')) {
      CreateDirectoryW(path.c_str(), nullptr);
    }
    file(path);
  };
  const auto noPhoto = [] { DeleteFileW(kOneFile.c_str()); };
  const std::wstring stray = kFolder + L"\\x";
  const std::function<void()> cases[] = {
      [&] { file(stray); },
      [&] { file(stray, FILE_ATTRIBUTE_READONLY); },
      [&] { folder(stray); },
      [&] { sim::MakeJunction(stray, kTrap); },
      [&] { file(exact + L"branding.json."); },
      [&] { longPath(); },
      [&] { noPhoto(), file(kOneFile + L".tmp"); },
      [&] { noPhoto(), folder(kOneFile + L".tmp"); },
      [&] { noPhoto(), folder(kOneFile); },
      [&] { noPhoto(), sim::MakeSymbolicLink(kOneFile, std::wstring(kTrap) + L"\\mine"); },
      [&] { sim::SetFileSecurity(kOneFile, kStranger, L"D:"); },
      [&] { SetFileAttributesW(kOneFile.c_str(), FILE_ATTRIBUTE_READONLY); },
      [&] { sim::SetFileSecurity(kRecord, kStranger, L"D:"); },
      [&] { test::WriteWholeFile(kRecord, std::string(262'145, ' ')); },
  };
  Apply(kBranding);
  CreateDirectoryW(kTrap, nullptr);
  test::WriteWholeFile(std::wstring(kTrap) + L"\\mine", "mine");
  for (const auto& plant : cases) {
    SCOPED_TRACE(&plant - cases);
    plant();
    Apply(kBranding);
    ExpectComplete();
    EXPECT_EQ(sim::FileSecurity(kOneFile) + sim::FileSecurity(kRecord), L"");
    EXPECT_EQ(GetFileAttributesW(kOneFile.c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
  }
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

TEST_F(BrandingTest, StopEndsADownloadAtOnce) {
  ASSERT_TRUE(win32::CreateStopEvent());
  Serve(kOne, {.headersDelay = INFINITE});
  clock_.At(5'000, [] { win32::RequestStop(); });
  Apply(kBranding);
  EXPECT_EQ(clock_.Elapsed(), 5'000U);
  EXPECT_EQ(portal_.Requests().size(), 1U);
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{});
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

class BrandingFaults : public BrandingTest {
 protected:
  void SetUp() override {}
};

TEST_F(BrandingFaults, WhateverWasCutShortTheNextRunIsWholeAndTheEndLeavesNothing) {
  const auto run = [] {
    Apply(Listing({kOne}));
    for (const std::wstring& name : test::ListFolder(kFolder)) {
      EXPECT_EQ(name.find(L"tmp"), std::wstring::npos) << "left behind by a call that failed";
    }
    RemoveBranding();
  };
  const auto later = [this] {
    RemoveBranding();
    EXPECT_FALSE(Exists(kKioskFolder));
    Serve(kOne, {.body = "one"});
    Serve(kTwo, {.body = "two"});
    Apply(kBranding);
    ExpectComplete();
  };
  sim::RunFaultScenario({.name = L"branding comes to a stranger's folder and goes",
                         .prepare =
                             [this] {
                               BrandingTest::SetUp();
                               for (const wchar_t* path : kTree) {
                                 CreateDirectoryW(path, nullptr);
                               }
                               sim::SetFileSecurity(kFolder, kStranger, L"D:(A;OICI;FA;;;WD)");
                               sim::KeepHandle(kFolder, kTrap);
                               CreateDirectoryW((kFolder + L"\\theirs").c_str(), nullptr);
                               CreateDirectoryW(kTrap, nullptr);
                               test::WriteWholeFile(std::wstring(kTrap) + L"\\mine", "mine");
                             },
                         .run = run,
                         .later = later,
                         .errors = {ERROR_DISK_FULL}});
}

}  // namespace
}  // namespace kiosk::branding
