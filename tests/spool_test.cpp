// The log shipper's spool on Wine's files: shared by processes, capped, and safe from every fault.
#include "tests/support/spool.h"

#include "sim/fault_driver.h"

#include <nlohmann/json.hpp>

#include <climits>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

namespace kiosk::log::shipper {
namespace {

using test::WriteWholeFile;

class SpoolTest : public test::CleanMachine {};

std::string TextOf(int number, std::size_t size = 0) {
  return "{\"n\":" + std::to_string(number) + ",\"x\":\"" + std::string(size, 'x') + "\"}\n";
}

// Sends all that can be had, noting the numbers.
void SendAll(Spool& spool, std::map<int, int>& sent, int most = INT_MAX) {
  for (std::optional<Segment> segment; most-- > 0 && (segment = spool.Claim());) {
    for (std::string record; segment->Next(record);) {
      ++sent[nlohmann::json::parse(record)["n"].get<int>()];
    }
    EXPECT_TRUE(segment->Delete());
  }
}

TEST_F(SpoolTest, CapTakesTheOldest) {
  MakeDropTree();
  Spool spool(kDrop, 4 * kSegmentSize);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(spool.Append(TextOf(i, kMaxRecord - 100)));
    ASSERT_TRUE(spool.Append(TextOf(i, kMaxRecord - 100) + TextOf(i, kMaxRecord - 100) + TextOf(i, kMaxRecord - 100) +
                             TextOf(i, kMaxRecord - 100)));
    Sleep(20);
  }
  EXPECT_EQ(Segments().size(), 3U);  // 300 KB each
  EXPECT_EQ(spool.TakeLost(), 35U);
  std::map<int, int> sent;
  SendAll(spool, sent);
  EXPECT_EQ(sent, (std::map<int, int>{{7, 5}, {8, 5}, {9, 5}}));
}

// Until nothing is left, claimed by whomever.
void SendTogether(Spool& spool, std::map<int, int>& sent) {
  while (!Segments().empty() || !Segments(kDrop + L"\\Taken").empty()) {
    spool.ReturnDeadClaims();  // must leave the claims of the living alone
    SendAll(spool, sent, 1);
  }
}

// The second process is this test once more.
TEST(SpoolProcesses, TwoShareTheWork) {
  Spool spool(kDrop, 64 * kSegmentSize);
  std::map<int, int> sent;
  constexpr wchar_t kRole[] = L"--second";
  if (test::ThisTestIs(kRole)) {
    SendTogether(spool, sent);
    std::string text;
    for (const auto& [number, times] : sent) {
      text += std::to_string(number) + " " + std::to_string(times) + " ";
    }
    return WriteWholeFile(L"C:\\second.txt", text);
  }
  test::RemoveTree(L"C:\\ProgramData\\Norvane");
  MakeDropTree();
  for (int i = 0; i < 60; ++i) {
    WriteWholeFile(kDrop + L"\\" + std::to_wstring(100 + i) + L".gelf", TextOf(i) + TextOf(i));
  }
  const win32::KernelHandle child = test::StartThisTestAs(kRole);
  SendTogether(spool, sent);
  DWORD code = 1;
  WaitForSingleObject(child.Get(), INFINITE);
  EXPECT_TRUE(GetExitCodeProcess(child.Get(), &code) != 0 && code == 0) << code;
  std::istringstream others(test::ReadWholeFile(L"C:\\second.txt"));
  for (int number = 0, times = 0; others >> number >> times;) {
    sent[number] += times;
  }
  DeleteFileW(L"C:\\second.txt");
  EXPECT_EQ(sent.size(), 60U);
  for (const auto& [number, times] : sent) {
    EXPECT_EQ(times, 2) << number;
  }
}

void Note(const wchar_t* file, int number) {
  WriteWholeFile(file, test::ReadWholeFile(file) + std::to_string(number) + " ");
}

std::set<int> Noted(const wchar_t* file) {
  std::istringstream text(test::ReadWholeFile(file));
  return {std::istream_iterator<int>(text), {}};
}

// What Append took arrives at least once and whole, whichever call fails and whenever the process ends.
TEST(SpoolFaults, EveryFaultLosesNothing) {
  const auto prepare = [] {
    test::RemoveTree(L"C:\\ProgramData\\Norvane");
    MakeDropTree();
    DeleteFileW(L"C:\\kept.txt");
    DeleteFileW(L"C:\\arrived.txt");
  };
  const auto run = [] {
    Spool spool(kDrop, 64 * kSegmentSize);
    for (int i = 0; i < 4; ++i) {
      if (spool.Append(TextOf(i, std::size_t{3} * static_cast<std::size_t>(i))) ||
          spool.Append(TextOf(i, std::size_t{3} * static_cast<std::size_t>(i)))) {
        Note(L"C:\\kept.txt", i);
      }
      if (i == 1) {
        spool.CloseSegment();
      }
    }
    for (const std::wstring& name : Segments()) {
      EXPECT_NE(test::ReadWholeFile(kDrop + L"\\" + name), "");
    }
    for (const bool sent : {true, false}) {
      if (std::optional<Segment> segment = spool.Claim()) {
        for (std::string record; segment->Next(record);) {
          Note(L"C:\\arrived.txt", nlohmann::json::parse(record)["n"].get<int>());
        }
        sent ? static_cast<void>(segment->Delete()) : static_cast<void>(segment->Return(kDrop));
      }
    }
  };
  const auto later = [] {
    Spool spool(kDrop, 64 * kSegmentSize);
    spool.ReturnDeadClaims();
    std::map<int, int> sent;
    SendAll(spool, sent);
    for (const int number : Noted(L"C:\\kept.txt")) {
      EXPECT_TRUE(sent.count(number) != 0 || Noted(L"C:\\arrived.txt").count(number) != 0) << number;
    }
    EXPECT_EQ(Segments(kDrop + L"\\Taken"), std::vector<std::wstring>{});
  };
  sim::RunFaultScenario(
      {.name = L"life of a spool", .prepare = prepare, .run = run, .later = later, .errors = {ERROR_DISK_FULL}});
}

}  // namespace
}  // namespace kiosk::log::shipper
