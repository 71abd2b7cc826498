// The log: what a line looks like, where it goes, and what the housekeeping keeps.
#include "log/log.h"

#include "log/housekeeping.h"
#include "log/identity.h"
#include "sim/clock.h"
#include "sim/files.h"
#include "sim/leases.h"
#include "state/folders.h"
#include "tests/support/fixture.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <map>
#include <memory>
#include <regex>

namespace kiosk::log {
namespace {

using test::ListFolder;
using test::LogLines;
using test::LogTexts;
using test::ReadWholeFile;
using test::SetDword;
using test::SetString;
using test::WriteWholeFile;

class LogTest : public test::CleanMachine {};

const std::wstring kRoot = state::kLogRoot;
constexpr wchar_t kSettings[] = L"SOFTWARE\\Norvane\\Tessaly\\Log";

const std::wstring kParent = L"C:\\ProgramData\\Norvane\\Tessaly";
constexpr wchar_t kProtected[] = L"O:BAD:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

void MakeLogTree() {
  for (const wchar_t* folder : {L"C:\\ProgramData", L"C:\\ProgramData\\Norvane", kParent.c_str(), state::kLogRoot}) {
    CreateDirectoryW(folder, nullptr);
  }
}

void SetLastWrite(const std::wstring& path, std::uint64_t time) {
  const win32::FileHandle file(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  const FILETIME stamp{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  ASSERT_NE(SetFileTime(file.Get(), nullptr, nullptr, &stamp), 0);
}

TEST_F(LogTest, LabelsAndTheRaisingRule) {
  const std::string far191 = std::string(191, 'x') + "error";
  const std::string last = std::string(186, 'x') + "error";
  struct {
    int level;
    std::string message;
    const char* label;
  } const cases[] = {{3, "disk", "ERROR"},         {0, "disk", "ERROR"},
                     {4, "refused", "WARN"},       {5, "a failure, refused, invalid", "INFO"},
                     {6, "we cannot", "INFO"},     {6, "Caller REFUSED", "ERROR"},
                     {6, far191, "INFO"},          {6, last, "ERROR"},
                     {7, "an exception", "DEBUG"}, {9, "detail", "DEBUG"}};
  for (const auto& each : cases) {
    Log(each.level, kKiosk, "%s", each.message.c_str());
    EXPECT_EQ(LogTexts().back(), each.label + (" " + each.message));
  }
  for (const char* word : {"we cannot go", "we FAIL", "xerrorx", "access denied", "it timed out", "a timeout",
                           "unable to", "an exception", "was aborted", "it was not found", "invalid"}) {
    Log(6, kKiosk, "%s", word);
    EXPECT_EQ(LogTexts().back(), std::string("ERROR ") + word);
  }
}

TEST_F(LogTest, OneMessageIsOneWholeLine) {
  Log(kNotice, kKiosk, "name \"%s\"", "Łódź – Halle 3\r\n[00:00:00.000] ERROR forged\x01\x7f\u2028\u0085 end");
  Log(kNotice, kKiosk, "%zu %lld %lu", SIZE_MAX, -5LL, 7UL);
  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(std::regex_match(lines[0], std::regex("\\[\\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] INFO name .*")));
  EXPECT_EQ(LogTexts()[0], "INFO name \"Łódź – Halle 3  [00:00:00.000] ERROR forged        end\"");
  EXPECT_EQ(LogTexts()[1], "INFO 18446744073709551615 -5 7");
  // Whatever the portal sends: Latin-1, overlong forms, half a surrogate pair, beyond Unicode, and an end that is
  // missing.
  Log(kNotice, kKiosk,
      "Stra\xDF"
      "e %s",
      "\xC0\x80 \xED\xA0\x80 \xF5\x80\x80\x80 \xC2\n \xE2\x82");
  EXPECT_EQ(LogTexts()[2], "INFO Stra?e ?? ??? ???? ?  ??");
  // Cut between characters: stamp, text and terminator share 2048 bytes, which leaves 2032 for the text.
  for (const std::size_t lead : {2029U, 2030U, 2032U}) {
    Log(kNotice, kKiosk, "%s%s", std::string(lead, 'x').c_str(), "€€");
    EXPECT_EQ(LogTexts().back().size() - 5, lead == 2029 ? 2032U : lead);
  }
}

TEST_F(LogTest, ComponentsHaveFilesOfTheirOwnBeyondTheTableToo) {
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 34; ++i) {
      Log(kNotice, ("Part" + std::to_string(i)).c_str(), "round %d", round);
    }
  }
  const std::vector<std::string> expected = {"INFO round 0", "INFO round 1"};
  for (int i = 0; i < 34; ++i) {
    EXPECT_EQ(LogTexts("Part" + std::to_string(i)), expected) << i;
  }
}

TEST_F(LogTest, ThreadsNeverTearALine) {
  std::vector<win32::KernelHandle> threads;
  threads.reserve(8);
  for (int thread = 0; thread < 8; ++thread) {
    threads.push_back(win32::StartThread([thread]() noexcept {
      for (int i = 0; i < 400; ++i) {
        Log(kNotice, kKiosk, "thread %d line %d %s", thread, i,
            std::string(static_cast<std::size_t>(i % 90), 'x').c_str());
      }
    }));
  }
  for (const win32::KernelHandle& thread : threads) {
    WaitForSingleObject(thread.Get(), INFINITE);
  }
  std::map<int, int> next;
  for (const std::string& text : LogTexts()) {
    int thread = 0;
    int line = 0;
    // NOLINTNEXTLINE(cert-err34-c): the numbers were written above
    ASSERT_EQ(std::sscanf(text.c_str(), "INFO thread %d line %d", &thread, &line), 2) << text;
    ASSERT_EQ(line, next[thread]++) << text;
    ASSERT_TRUE(text.ends_with(" " + std::string(static_cast<std::size_t>(line % 90), 'x')));
  }
  for (int thread = 0; thread < 8; ++thread) {
    EXPECT_EQ(next[thread], 400);
  }
}

TEST_F(LogTest, MidnightBeginsANewFolderAndFile) {
  // 23:59:50 in Warsaw in winter.
  sim::VirtualClock clock(sim::FileTimeOf(2026, 12, 31, 22, 59, 50), -60);
  Log(kNotice, kKiosk, "old year");
  clock.RunFor(15'000);
  Log(kNotice, kKiosk, "new year");
  EXPECT_EQ(ReadWholeFile(kRoot + L"\\2026-12-31\\Kiosk_235950.log"), "[23:59:50.000] INFO old year\n");
  clock.SetSystemTime(sim::FileTimeOf(2026, 12, 31, 22, 59, 55));  // the clock is put right
  Log(kNotice, kKiosk, "the same night");
  EXPECT_EQ(ReadWholeFile(kRoot + L"\\2027-01-01\\Kiosk_000005.log"),
            "[00:00:05.000] INFO new year\n[23:59:55.000] INFO the same night\n");
  clock.RunFor(60'000);
  clock.SetSystemTime(sim::FileTimeOf(2026, 12, 31, 11));
  Log(kNotice, kKiosk, "set back");
  EXPECT_EQ(ReadWholeFile(kRoot + L"\\2026-12-31\\Kiosk_120000.log"), "[12:00:00.000] INFO set back\n");
}

TEST_F(LogTest, LineThatIsTakenInPartIsWrittenAgainOnALineOfItsOwn) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  Log(kNotice, kKiosk, "first");
  sim::ShortenNextWrite(L"kiosk_100000.log", 20);
  Log(kNotice, kKiosk, "second");
  Log(kNotice, kKiosk, "third");
  EXPECT_EQ(ReadWholeFile(kRoot + L"\\2026-11-21\\Kiosk_100000.log"),
            "[10:00:00.000] INFO first\n[10:00:00.000] INFO \n[10:00:00.000] INFO second\n[10:00:00.000] INFO third\n");
}

TEST_F(LogTest, PolicyComesBeforeTheOwnKeyAndThatBeforeTheSharedOne) {
  constexpr wchar_t kPolicy[] = L"SOFTWARE\\Policies\\Norvane\\Tessaly\\Log";
  constexpr wchar_t kShared[] = L"SOFTWARE\\Norvane\\Stream\\Log";
  for (const wchar_t* key : {kPolicy, kSettings, kShared}) {
    SetDword(key, L"LocalLogging", key == kPolicy ? 1 : 0);
  }
  SetString(kPolicy, L"TenantId", L"");
  SetString(kShared, L"TenantId", L"t-stream");
  SetString(kShared, L"Site", L"s-stream");
  SetString(kSettings, L"Site", L"s-own");
  StartBanner(kKiosk);
  StopBanner(kKiosk);
  const std::vector<std::string> texts = LogTexts();
  ASSERT_EQ(texts.size(), 4U);
  EXPECT_EQ(texts[0], "INFO Kiosk v2026-10-15-0001 starting");
  EXPECT_TRUE(std::regex_match(texts[1], std::regex("INFO machine=\\S+ tenant=t-stream site=s-own host=\\S+")));
  EXPECT_EQ(texts[2], "INFO Central logging: off | local files: on");
  EXPECT_EQ(texts[3], "INFO Kiosk shutting down");
}

TEST_F(LogTest, SwitchedOffWritesNoLine) {
  SetDword(kSettings, L"LocalLogging", 0);
  StartBanner(kKiosk);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(LogTest, JunctionInThePathIsReplacedNotFollowed) {
  MakeLogTree();
  RemoveDirectoryW(state::kLogRoot);
  CreateDirectoryW(L"C:\\elsewhere", nullptr);
  sim::MakeJunction(kRoot, L"C:\\elsewhere");
  Log(kNotice, kKiosk, "safe");
  EXPECT_EQ(LogTexts(), std::vector<std::string>{"INFO safe"});
  EXPECT_EQ(ListFolder(L"C:\\elsewhere"), std::vector<std::wstring>{});
  const std::wstring day = kRoot + L"\\" + ListFolder(kRoot).front();
  for (const std::wstring& folder : {std::wstring(L"C:\\ProgramData\\Norvane"), kRoot, kRoot + L"\\Drop\\Taken", day}) {
    EXPECT_EQ(sim::FileSecurity(folder), kProtected);
  }
}

TEST_F(LogTest, TreeThatCannotBeSecuredIsNotWrittenAndTriedAgainEachHour) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  clock.SetGrace(20);
  MakeLogTree();
  RemoveDirectoryW(state::kLogRoot);
  // Somebody holds a file where the log root should be, so it can be neither removed nor replaced.
  win32::FileHandle held(CreateFileW(state::kLogRoot, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
  ASSERT_TRUE(held);
  StartBanner(kKiosk);
  const auto lineAfter = [&clock](std::uint64_t wait) {
    clock.RunFor(wait);
    Log(kNotice, kKiosk, "line");
    clock.RunFor(1);
  };
  lineAfter(3'600'000);
  EXPECT_EQ(ListFolder(kParent), std::vector<std::wstring>{L"Logs"});
  held.Reset();
  lineAfter(3'500'000);
  EXPECT_EQ(GetFileAttributesW(state::kLogRoot) & FILE_ATTRIBUTE_DIRECTORY, 0U);
  lineAfter(100'000);
  lineAfter(0);
  EXPECT_EQ(LogTexts(), (std::vector<std::string>{"INFO log: C:\\ProgramData\\Norvane\\Tessaly\\Logs is secured now; "
                                                  "lines are kept in files",
                                                  "INFO line"}));
}

// As every user may.
TEST_F(LogTest, SomebodyKeepsProgramDataOpenForHimselfAlone) {
  MakeLogTree();
  const win32::FileHandle held(CreateFileW(L"C:\\ProgramData", FILE_LIST_DIRECTORY, 0, nullptr, OPEN_EXISTING,
                                           FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  ASSERT_TRUE(held);
  Log(kNotice, kKiosk, "line");
  EXPECT_EQ(LogTexts(), std::vector<std::string>{"INFO line"});
}

TEST_F(LogTest, LinkPlantedUnderTheNextNameIsNotWritten) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  MakeLogTree();
  CreateDirectoryW((kRoot + L"\\2026-11-21").c_str(), nullptr);
  WriteWholeFile(L"C:\\victim.txt", "precious");
  ASSERT_NE(CreateHardLinkW((kRoot + L"\\2026-11-21\\Kiosk_100000.log").c_str(), L"C:\\victim.txt", nullptr), 0);
  Log(kNotice, kKiosk, "not there");
  EXPECT_EQ(ReadWholeFile(L"C:\\victim.txt"), "precious");
  DeleteFileW(L"C:\\victim.txt");
}

TEST_F(LogTest, OldFlatFilesMoveToTheArchiveAndExpireThere) {
  MakeLogTree();
  CreateDirectoryW((kRoot + L"\\Archive").c_str(), nullptr);
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t today[16];
  static_cast<void>(std::swprintf(today, 16, L"%04d%02d%02d", now.wYear, now.wMonth, now.wDay));
  const std::wstring current = std::wstring(L"crash_") + today + L".dmp";
  for (const std::wstring& name :
       {current, std::wstring(L"old.log"), std::wstring(L"old.dmp"), std::wstring(L"notes.txt")}) {
    WriteWholeFile(kRoot + L"\\" + name, "x");
  }
  constexpr std::uint64_t kDay = std::uint64_t{24} * 3600 * win32::kFileTimeSecond;
  constexpr std::pair<const wchar_t*, std::uint64_t> kArchived[] = {
      {L"young.log", 29}, {L"old.dmp", 31}, {L"older.log", 40}, {L"keep.txt", 99}};
  for (const auto& [name, age] : kArchived) {
    WriteWholeFile(kRoot + L"\\Archive\\" + name, "y");
    SetLastWrite(kRoot + L"\\Archive\\" + name, win32::FileTimeNow() - age * kDay);
  }
  ArchiveOldFiles(now);
  // "old.dmp" could not move over the one in the archive, which then expired.
  EXPECT_EQ(ListFolder(kRoot), (std::vector<std::wstring>{L"Archive", current, L"notes.txt", L"old.dmp"}));
  EXPECT_EQ(ListFolder(kRoot + L"\\Archive"), (std::vector<std::wstring>{L"keep.txt", L"old.log", L"young.log"}));
}

TEST_F(LogTest, PruneDeletesTheOldestUntilTheCapHolds) {
  MakeLogTree();
  SetDword(kSettings, L"LogCapMB", 2);
  CreateDirectoryW((kRoot + L"\\Archive").c_str(), nullptr);
  for (const wchar_t* folder : {L"\\2026-01-01", L"\\2026-01-02", L"\\2026-1-03", L"\\2026-01-04"}) {
    CreateDirectoryW((kRoot + folder).c_str(), nullptr);
  }
  constexpr std::pair<const wchar_t*, std::uint64_t> kFiles[] = {
      {L"\\2026-01-01\\Kiosk_1.log", 900},   {L"\\Archive\\old.log", 800}, {L"\\flat.log", 700},
      {L"\\2026-01-02\\Kiosk_2.log", 600},   {L"\\flat.dmp", 500},         {L"\\2026-01-04\\Kiosk_4.log", 400},
      {L"\\2026-1-03\\not-a-day.log", 9999}, {L"\\client_uuid.txt", 9999}};
  for (const auto& [name, age] : kFiles) {
    WriteWholeFile(kRoot + name, std::string(524'288, 'x'));
    SetLastWrite(kRoot + name, win32::FileTimeNow() - age * win32::kFileTimeSecond);
  }
  // Held open, so it is skipped and still counts.
  const win32::FileHandle held(CreateFileW((kRoot + L"\\Archive\\old.log").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                           nullptr, OPEN_EXISTING, 0, nullptr));
  Prune();
  EXPECT_EQ(ListFolder(kRoot), (std::vector<std::wstring>{L"2026-01-02", L"2026-01-04", L"2026-1-03", L"Archive",
                                                          L"client_uuid.txt", L"flat.dmp"}));
  EXPECT_EQ(ListFolder(kRoot + L"\\2026-01-02").size(), 1U);
  EXPECT_EQ(ListFolder(kRoot + L"\\Archive").size(), 1U);
}

TEST_F(LogTest, InstallIdentifierIsKeptAndRemadeWhenDamaged) {
  MakeLogTree();
  const std::regex shape("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  WriteWholeFile(kRoot + L"\\client_uuid.txt.1.tmp", "of a process that was killed");
  std::string last(36, '-');
  for (const char* damaged :
       {"", "0123", "{0123456-0123-4123-8123-0123456789ab", "------------------------------------"}) {
    WriteWholeFile(kRoot + L"\\client_uuid.txt", damaged);
    const std::string made = LoadOrCreateInstallId(state::kLogRoot);
    EXPECT_TRUE(made != last && std::regex_match(made, shape)) << damaged;
    EXPECT_EQ(LoadOrCreateInstallId(state::kLogRoot), made) << damaged;
    last = made;
  }
  EXPECT_EQ(ListFolder(kRoot), std::vector<std::wstring>{L"client_uuid.txt"});
}

TEST_F(LogTest, OfProcessesThatBeginTogetherTheFirstMakesTheInstallIdentifier) {
  MakeLogTree();
  constexpr char kFirst[] = "01234567-89ab-4cde-8123-456789abcdef";
  const std::wstring path = kRoot + L"\\client_uuid.txt";
  for (const char* damaged : {"", "0123"}) {
    if (*damaged != 0) {
      WriteWholeFile(path, damaged);
    }
    std::string taken;
    win32::KernelHandle later;
    {
      const sim::HeldFile held(path + L"." + std::to_wstring(GetCurrentProcessId()) + L".tmp");
      later = win32::StartThread([&taken]() noexcept { taken = LoadOrCreateInstallId(state::kLogRoot); });
      ASSERT_TRUE(test::Becomes([&held] { return held.Attempts() == 1; }));
      WriteWholeFile(path, kFirst);
    }
    WaitForSingleObject(later.Get(), INFINITE);
    EXPECT_EQ(taken, kFirst);
    EXPECT_EQ(ReadWholeFile(path), kFirst);
  }
}

// The folder of an old day disappears with the prune, which so can be seen from outside.
TEST_F(LogTest, FirstLineEachHourAndANewDayPrune) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  clock.SetGrace(20);
  const std::wstring old = kRoot + L"\\2001-01-01";
  const auto prunedAfter = [&](std::uint64_t wait) {
    CreateDirectoryW(old.c_str(), nullptr);
    clock.RunFor(wait);
    Log(kNotice, kKiosk, "line");
    clock.RunFor(1);
    return !test::Exists(old);
  };
  MakeLogTree();
  EXPECT_TRUE(prunedAfter(0));
  EXPECT_FALSE(prunedAfter(3'590'000));
  EXPECT_TRUE(prunedAfter(11'000));
  clock.SetSystemTime(sim::FileTimeOf(2026, 11, 22, 0));
  EXPECT_TRUE(prunedAfter(0));
  EXPECT_FALSE(prunedAfter(0));
}

TEST_F(LogTest, FolderOfAnOrdinaryUserIsSetAsideWithAllThatIsInIt) {
  MakeLogTree();
  WriteWholeFile(kRoot + L"\\Kiosk.log", "a trap");
  sim::SetFileSecurity(kRoot, L"O:BU", L"D:(A;;FA;;;WD)");
  sim::SetFileSecurity(kParent, L"O:BU", L"D:(A;;FA;;;WD)");
  Log(kNotice, kKiosk, "line");
  const std::vector<std::wstring> names = ListFolder(kParent);
  ASSERT_EQ(names.size(), 2U);
  EXPECT_TRUE(names[1].starts_with(L"Logs.untrusted-")) << win32::ToNarrow(names[1]);
  EXPECT_EQ(ReadWholeFile(kParent + L"\\" + names[1] + L"\\Kiosk.log"), "a trap");
  EXPECT_EQ(LogTexts(), std::vector<std::string>{"INFO line"});
  EXPECT_EQ(sim::FileSecurity(kRoot), kProtected);
  EXPECT_EQ(sim::FileSecurity(kParent), kProtected);
}

// He made the folders before the service first ran, and does not give his locks up.
TEST_F(LogTest, LocksInAStrangersFoldersHoldTheStartForAMomentAlone) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  clock.SetGrace(20);
  MakeLogTree();
  for (const std::wstring& folder : {kParent, kRoot}) {
    WriteWholeFile(folder + L"\\theirs", "x");
    sim::SetFileSecurity(folder, L"O:BU", L"D:(A;;FA;;;WD)");
  }
  const sim::HeldFile outer(kParent + L"\\theirs");
  auto inner = std::make_unique<sim::HeldFile>(kRoot + L"\\theirs");
  clock.At(600'000, [&inner] { inner.reset(); });
  StartBanner(kKiosk);
  EXPECT_LE(clock.Elapsed(), 1'000U);
  EXPECT_EQ(ListFolder(kParent), (std::vector<std::wstring>{L"Logs", L"theirs"}));
  clock.RunFor(3'600'000);
  Log(kNotice, kKiosk, "tries again");
  clock.RunFor(1);
  EXPECT_EQ(
      test::CountLogged("INFO log: C:\\ProgramData\\Norvane\\Tessaly\\Logs is secured now; lines are kept in files"),
      1);
  EXPECT_EQ(ListFolder(kParent).size(), 3U);
}

// An administrator's program made the folder and let everybody into it; what somebody has locked there stays.
TEST_F(LogTest, LocksInAFolderThatEverybodyCouldWriteInHoldNothingUp) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 10));
  clock.SetGrace(20);
  MakeLogTree();
  sim::SetFileSecurity(kRoot, L"O:BA", L"D:(A;;FA;;;WD)");
  const std::wstring uuid = kRoot + L"\\client_uuid.txt";
  const std::wstring old = kRoot + L"\\Kiosk_20200101.log";
  const std::wstring day = kRoot + L"\\2026-11-21";
  CreateDirectoryW(day.c_str(), nullptr);
  sim::SetFileSecurity(day, L"O:BU", L"D:(A;;FA;;;WD)");
  for (const std::wstring& path : {uuid, old, day + L"\\theirs"}) {
    WriteWholeFile(path, "x");
  }
  const sim::HeldFile heldUuid(uuid);
  const sim::HeldFile heldOld(old, sim::Lease::kReadHandle);
  auto heldDay = std::make_unique<sim::HeldFile>(day + L"\\theirs");
  StartBanner(kKiosk);
  EXPECT_LE(clock.Elapsed(), 3'000U);
  EXPECT_EQ(ListFolder(day), std::vector<std::wstring>{L"theirs"}) << "lines go into a stranger's folder";
  heldDay.reset();
  clock.RunFor(5'000);
  Log(kNotice, kKiosk, "tries again");
  EXPECT_EQ(LogTexts(), std::vector<std::string>{"INFO tries again"});
}

}  // namespace
}  // namespace kiosk::log
