// The branding folder: whatever others put on its way or into it is gone, and what they keep is no way in.
#include "sim/fault_driver.h"
#include "sim/leases.h"
#include "tests/support/branding.h"

#include <algorithm>
#include <functional>
#include <list>

namespace kiosk::branding {
namespace {

constexpr wchar_t kStranger[] = L"O:S-1-5-21-1-2-3-1001";

// Where a link leads to that somebody plants: nothing in it changes.
void MakeTrap() {
  CreateDirectoryW(kTrap, nullptr);
  test::WriteWholeFile(std::wstring(kTrap) + L"\\mine", "mine");
}

void MakeStrangers(const wchar_t* folder) {
  for (const wchar_t* path : kTree) {
    CreateDirectoryW(path, nullptr);
  }
  sim::SetFileSecurity(folder, kStranger, L"D:(A;OICI;FA;;;WD)");
}

enum class Planted { kJunction, kFile, kReadOnlyFile, kOfAStranger };

class BrandingTreeTest : public BrandingTest, public testing::WithParamInterface<std::tuple<int, Planted>> {};

TEST_P(BrandingTreeTest, NothingPlantedOnTheWayIsTrusted) {
  const auto [level, planted] = GetParam();
  const std::wstring path = kTree[level];
  MakeTrap();
  for (int i = 0; i < level; ++i) {
    CreateDirectoryW(kTree[i], nullptr);
  }
  if (planted == Planted::kJunction) {
    sim::MakeJunction(path, kTrap);
  } else if (planted == Planted::kOfAStranger) {
    MakeStrangers(kTree[level]);
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
    MakeStrangers(Kept());
    MakeTrap();
  }
  [[nodiscard]] static const wchar_t* Kept() { return kTree[GetParam()]; }
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
  const std::wstring program = std::wstring(Kept()) + L"\\theirs.exe";
  const auto setAside = [] {
    const Names names = test::ListFolder(kTree[GetParam() - 1]);
    return std::count_if(names.begin(), names.end(), [](const std::wstring& name) {
      return name.find(win32::kSetAsideMark) != std::wstring::npos;
    });
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
  win32::FileHandle kept(CreateFileW(Kept(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
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

TEST_P(StrangersFolder, FullOfHeldFilesIsGivenUpAfterSeconds) {
  std::list<sim::HeldFile> held;
  for (int i = 0; i < 100; ++i) {
    const std::wstring path = std::wstring(Kept()) + L"\\" + std::to_wstring(i);
    test::WriteWholeFile(path, "x");
    held.emplace_back(path, sim::Lease::kReadHandle);
  }
  ExpectDoneWithin(7'000, [] { Apply(kBranding); });
  EXPECT_TRUE(sim::FileSecurity(Kept()).starts_with(kStranger));
  held.clear();
  clock_.RunFor(3'600'000);
  Apply(kBranding);
  ExpectComplete();
}

TEST_F(BrandingTest, ManyThatAreSetAsideAndHeldAreGivenUpAfterSeconds) {
  Apply(kBranding);
  std::list<sim::HeldFile> held;
  for (int i = 0; i < 50; ++i) {
    const std::wstring path = std::wstring(kKioskFolder) + L".untrusted-" + std::to_wstring(i);
    test::WriteWholeFile(path, "x");
    held.emplace_back(path, sim::Lease::kReadHandle);
  }
  ExpectDoneWithin(7'000, RemoveBranding);
  EXPECT_FALSE(Exists(kFolder));
}

// Whoever may open a file may hold an opportunistic lock on it, and never give it up.
class HeldByAReader : public BrandingTest, public testing::WithParamInterface<std::pair<std::wstring, sim::Lease>> {};
INSTANTIATE_TEST_SUITE_P(FilesAndFolders, HeldByAReader,
                         testing::Values(std::pair{kRecord, sim::Lease::kBatch},
                                         std::pair{kRecord, sim::Lease::kReadHandle},
                                         std::pair{kOneFile, sim::Lease::kBatch},
                                         std::pair{kOneFile, sim::Lease::kReadHandle},
                                         std::pair{kFolder, sim::Lease::kReadHandle},
                                         std::pair{std::wstring(kKioskFolder), sim::Lease::kReadHandle}));

TEST_P(HeldByAReader, HoldsNothingUpAndGoesLater) {
  const auto [path, lease] = GetParam();
  Apply(kBranding);
  {
    const sim::HeldFile held(path, lease);
    ExpectDoneWithin(1'000, [] { Apply(R"({"photos":[]})"); });
    ExpectDoneWithin(1'000, RemoveBranding);
    EXPECT_TRUE(Exists(path));
  }
  Apply(kBranding);
  ExpectComplete();
  RemoveBranding();
  EXPECT_FALSE(Exists(kKioskFolder));
}

// Of a folder that gets another list, what is in it is left alone.
TEST_F(BrandingTest, WhatIsHeldInAStrangersOuterFolderHoldsNothingUp) {
  MakeStrangers(kTree[0]);
  const std::wstring theirs = std::wstring(kTree[0]) + L"\\theirs";
  test::WriteWholeFile(theirs, "x");
  const sim::HeldFile held(theirs);
  ExpectDoneWithin(0, [] { Apply(kBranding); });
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
  MakeTrap();
  for (const auto& plant : cases) {
    SCOPED_TRACE(&plant - cases);
    plant();
    Apply(kBranding);
    ExpectComplete();
    EXPECT_EQ(sim::FileSecurity(kOneFile) + sim::FileSecurity(kRecord), L"");
    EXPECT_EQ(GetFileAttributesW(kOneFile.c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
  }
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
                               MakeStrangers(kBrandingFolder);
                               sim::KeepHandle(kFolder, kTrap);
                               CreateDirectoryW((kFolder + L"\\theirs").c_str(), nullptr);
                               MakeTrap();
                             },
                         .run = run,
                         .later = later,
                         .errors = {ERROR_DISK_FULL}});
}

}  // namespace
}  // namespace kiosk::branding
