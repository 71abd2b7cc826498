// Every file that the service writes, on a disk that fails in every way: nothing hangs or piles up, what was good stays
// or is made good again, and once the disk works the next write does. What somebody plants in the place of a file or
// folder is in the tests of each area (log_test, branding_folder_test, shipper_test).
#include "log/identity.h"
#include "log/log.h"
#include "log/shipper/refused.h"
#include "service/crash.h"
#include "sim/bad_disk.h"
#include "sim/event_log.h"
#include "tests/support/branding.h"
#include "tests/support/spool.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

namespace kiosk {
namespace {

using log::shipper::kDrop;
using log::shipper::kRoot;
using Names = std::vector<std::wstring>;

struct Way {
  const char* name;
  unsigned calls;
  DWORD error;
};

constexpr Way kWays[] = {
    {"full", sim::kWrites, ERROR_DISK_FULL},
    {"full to the last name", sim::kMakes | sim::kWrites | sim::kFlushes, ERROR_DISK_FULL},
    {"write-protected", sim::kMakes | sim::kWrites | sim::kFlushes | sim::kMoves | sim::kDeletes, ERROR_WRITE_PROTECT},
    {"access denied", sim::kOpens | sim::kMakes | sim::kMoves | sim::kDeletes, ERROR_ACCESS_DENIED},
    {"kept open by somebody", sim::kOpens | sim::kMoves | sim::kDeletes, ERROR_SHARING_VIOLATION},
    {"gone", sim::kAllCalls, ERROR_NOT_READY},
    {"bad sectors", sim::kReads | sim::kWrites, ERROR_CRC},
    {"no reading", sim::kReads, ERROR_IO_DEVICE},
    {"half a write", sim::kHalfWrites, ERROR_SUCCESS},
    {"no rename", sim::kMoves, ERROR_ACCESS_DENIED},
    {"no flush", sim::kFlushes, ERROR_IO_DEVICE},
};

class DiskTest : public test::CleanMachine {};

TEST_F(DiskTest, DayFileHasWholeLinesAndGoesOnWhereTheDiskDoes) {
  log::Log(log::kNotice, log::kKiosk, "first");
  const std::wstring day = kRoot + L"\\" + test::ListFolder(kRoot).front();
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    {
      const sim::BadDisk bad(L"\\kiosk_", way.calls, way.error);
      for (int i = 0; i < 5; ++i) {
        log::Log(log::kNotice, log::kKiosk, "meanwhile");
      }
    }
    log::Log(log::kNotice, log::kKiosk, "after %s", way.name);
    EXPECT_EQ(test::LogTexts().back(), std::string("INFO after ") + way.name);
    EXPECT_EQ(test::ListFolder(day).size(), 1U);
  }
  for (const std::string& line : test::LogLines()) {
    EXPECT_TRUE(line.empty() || line.rfind('[') == 0) << line << ": begins within another";
  }
}

TEST_F(DiskTest, IdentifierOfTheInstallationStaysWhatItIs) {
  log::shipper::MakeDropTree();
  const std::string first = log::LoadOrCreateInstallId(state::kLogRoot);
  ASSERT_EQ(first.size(), 36U);
  const std::wstring path = kRoot + L"\\client_uuid.txt";
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    const auto inTrouble = [&way] {
      const sim::BadDisk bad(L"\\client_uuid", way.calls, way.error);
      return log::LoadOrCreateInstallId(state::kLogRoot);
    };
    const std::string kept = inTrouble();
    EXPECT_TRUE(kept.empty() || kept == first) << kept;
    EXPECT_EQ(log::LoadOrCreateInstallId(state::kLogRoot), first);
    // And none yet, in one process after the other.
    DeleteFileW(path.c_str());
    const std::string made = inTrouble();
    EXPECT_EQ(made.empty(), !test::Exists(path));
    for (const std::wstring& name : test::ListFolder(kRoot)) {
      EXPECT_TRUE(name == L"Drop" || name.starts_with(L"client_uuid.txt")) << sim::Narrow(name) << " stays for ever";
    }
    EXPECT_EQ(log::LoadOrCreateInstallId(state::kLogRoot).size(), 36U);
    EXPECT_EQ(test::ListFolder(kRoot), (Names{L"Drop", L"client_uuid.txt"}));
    test::WriteWholeFile(path, first);
  }
}

TEST_F(DiskTest, SpoolGivesBackEveryLineThatItTook) {
  log::shipper::MakeDropTree();
  log::shipper::Spool spool(kDrop, std::uint64_t{64} * 1024 * 1024);
  std::set<int> taken, sent;
  const auto put = [&](int number) {
    if (spool.Append("{\"n\":" + std::to_string(number) + "}\n")) {
      taken.insert(number);
    }
  };
  const auto send = [&] {
    spool.ReturnDeadClaims();
    for (int most = 20; most > 0; --most) {
      std::optional<log::shipper::Segment> segment = spool.Claim();
      if (!segment) {
        return;
      }
      for (std::string record; segment->Next(record);) {
        sent.insert(nlohmann::json::parse(record)["n"].get<int>());
      }
      if (segment->ReadError() == ERROR_SUCCESS) {
        segment->Delete();
      }
    }
  };
  int number = 0;
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    put(number++);
    spool.CloseSegment();
    {
      const sim::BadDisk bad(L"\\drop", way.calls, way.error);
      for (int i = 0; i < 10; ++i) {
        put(number++);
        send();
      }
    }
    EXPECT_LE(log::shipper::Segments().size() + log::shipper::Segments(kDrop + L"\\Taken").size(), 12U);
    put(number++);
    send();
    send();
    EXPECT_TRUE(std::includes(sent.begin(), sent.end(), taken.begin(), taken.end()));
    EXPECT_TRUE(taken.contains(number - 1));
    EXPECT_EQ(log::shipper::Segments(), Names{});
    EXPECT_EQ(log::shipper::Segments(kDrop + L"\\Taken"), Names{});
  }
}

TEST_F(DiskTest, RefusedRecordsAreEachOnALineOfTheirOwn) {
  log::shipper::MakeDropTree();
  const std::wstring archive = kRoot + L"\\Archive";
  CreateDirectoryW(archive.c_str(), nullptr);
  log::shipper::Refused refused;
  refused.UseFolder(archive);
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    {
      const sim::BadDisk bad(L"\\refused_", way.calls, way.error);
      refused.SetAside("{\"meanwhile\":1}", "HTTP 400");
    }
    const std::string record = std::string("{\"after\":\"") + way.name + "\"}";
    refused.SetAside(record, "HTTP 400");
    ASSERT_EQ(test::ListFolder(archive).size(), 1U);
    EXPECT_TRUE(
        test::ReadWholeFile(archive + L"\\" + test::ListFolder(archive).front()).ends_with("\n" + record + "\n"));
  }
}

}  // namespace

namespace branding {
namespace {

TEST_F(BrandingTest, WhateverTheDiskRefusesTheNextRunIsWholeAndTheLogIsNotFilled) {
  const std::string changed = R"({"displayName":"New","photos":[{"sha256":")" + kOne + R"("}]})";
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    for (const char* of : {"nothing", "before", "another"}) {
      SCOPED_TRACE(of);
      RemoveBranding();
      if (of != std::string("nothing")) {
        Apply(of == std::string("before") ? kBranding : changed);
      }
      const std::size_t logged = test::LogTexts().size();
      {
        const sim::BadDisk bad(L"\\branding\\", way.calls, way.error);
        for (int run = 0; run < 8; ++run, clock_.RunFor(30'000)) {
          Apply(kBranding);
        }
      }
      EXPECT_LE(test::LogTexts().size() - logged, 12U);
      EXPECT_LE(test::ListFolder(kFolder).size(), 4U);
      clock_.RunFor(600'000);
      Apply(kBranding);
      ExpectComplete();
    }
    {
      const sim::BadDisk bad(L"\\branding", way.calls, way.error);
      RemoveBranding();
    }
    RemoveBranding();
    EXPECT_FALSE(Exists(kKioskFolder));
  }
}

}  // namespace
}  // namespace branding

namespace service {
namespace {

// Each in a process of its own, since a process reports one fault. What the dump's own writing meets is not simulated.
class DiskCrashTest : public test::CleanMachine, public testing::WithParamInterface<Way> {};
INSTANTIATE_TEST_SUITE_P(Ways, DiskCrashTest, testing::Values(kWays[1], kWays[5], kWays[9]),
                         [](const auto& way) { return "ends_with_" + std::to_string(way.param.error); });

TEST_P(DiskCrashTest, AFaultLeavesNoHalfADump) {
  const Way& way = GetParam();
  log::Log(log::kNotice, log::kKiosk, "ready");
  InstallCrashHandler();
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
  CONTEXT context{};
  RtlCaptureContext(&context);
  EXCEPTION_RECORD record{};
  record.ExceptionCode = static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION);
  EXCEPTION_POINTERS details{&record, &context};
  {
    const sim::BadDisk bad(L".dmp", way.calls, way.error);
    EXPECT_EQ(filter(&details), EXCEPTION_EXECUTE_HANDLER);
    EXPECT_TRUE(test::Becomes([] { return !sim::EventLogEntries().empty(); }));
  }
  const std::vector<std::string> texts = test::LogTexts();
  ASSERT_EQ(texts.size(), 3U);
  EXPECT_TRUE(texts[1].starts_with("ERROR fault 0xc0000005 at ")) << texts[1];
  EXPECT_TRUE(texts[2].starts_with("ERROR fault: no dump (0x")) << texts[2];
  EXPECT_EQ(test::ListFolder(state::kLogRoot).size(), 4U) << "the day, Archive, Drop and the identifier";
}

}  // namespace
}  // namespace service
}  // namespace kiosk
