// The simulated Windows where no test of the service would notice that it checks nothing: clock, ranks, violations,
// faults, WinHTTP.
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/fault_driver.h"
#include "sim/files.h"
#include "sim/gtest_report.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "win32/lock.h"
#include "win32/owners.h"
#include "win32/thread.h"

#include <lm.h>

#include <atomic>
#include <tuple>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

using kiosk::win32::KernelHandle;
using kiosk::win32::Lock;
using kiosk::win32::LockGuard;
using kiosk::win32::LockRank;
using kiosk::win32::StartThread;

constexpr wchar_t kTestKey[] = L"SOFTWARE\\SimTest";

// Two threads hand a token to and fro with waits that must never time out, while a third lets time run: a clock that
// jumped while a signal is on its way would end one of the waits.
TEST(SimClock, NoJumpWhileASignalIsOnItsWay) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 3, 29));
  const KernelHandle ping(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  const KernelHandle pong(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  int timeouts = 0;
  const auto play = [&timeouts](bool serves, HANDLE mine, HANDLE other) {
    for (int i = 0; i < 2000; ++i) {
      if (serves) {
        SetEvent(other);
      }
      const HANDLE both[] = {mine, mine};
      timeouts +=
          (i % 2 != 0 ? WaitForSingleObject(mine, 1) : WaitForMultipleObjects(2, both, FALSE, 1)) == WAIT_TIMEOUT;
      if (!serves) {
        SetEvent(other);
      }
    }
  };
  const KernelHandle first = StartThread([&]() noexcept { play(true, ping.Get(), pong.Get()); });
  const KernelHandle second = StartThread([&]() noexcept { play(false, pong.Get(), ping.Get()); });
  const HANDLE both[] = {first.Get(), second.Get()};
  EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 5), WAIT_OBJECT_0);
  EXPECT_EQ(timeouts, 0);
  EXPECT_EQ(clock.Elapsed(), 0U);
}

// One that runs on and on, and one in a call that is no simulated wait and does not return.
TEST(SimClock, AThreadThatHoldsTimeUpIsNamed) {
  for (const bool runs : {true, false}) {
    const sim::CatchViolations caught;
    sim::VirtualClock clock(sim::FileTimeOf(2026, 3, 29));
    clock.SetPatience(200);
    std::atomic<bool> over{false};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 0));
    const KernelHandle reader(read);
    KernelHandle writer(write);
    const KernelHandle thread = StartThread([&]() noexcept {
      char byte = 0;
      DWORD count = 0;
      while (runs ? !over : ReadFile(read, &byte, 1, &count, nullptr) != FALSE) {
      }
    });
    const ULONGLONG start = GetTickCount64();
    clock.RunFor(1000);
    EXPECT_EQ(GetTickCount64(), start) << runs;
    over = true;
    writer.Reset();
    EXPECT_EQ(WaitForSingleObject(thread.Get(), 5), WAIT_OBJECT_0) << runs;
    const std::string sentence = sim::CatchViolations::Take();
    EXPECT_NE(sentence.find("stands still at 0 ms"), std::string::npos) << sentence;
    EXPECT_NE(sentence.find(" runs or blocks"), std::string::npos) << sentence;
  }
}

TEST(SimLocks, RanksAreChecked) {
  static Lock leaf{LockRank::kLeaf};
  static Lock log{LockRank::kLog};
  static Lock otherLeaf{LockRank::kLeaf};
  const sim::CatchViolations caught;
  const std::tuple<Lock*, Lock*, const char*> cases[] = {
      {&leaf, &log, ""},
      {&log, &leaf, "takes a lock of rank 100 while it holds one of rank 200\n"},
      {&leaf, &otherLeaf, "takes a lock of rank 100 while it holds one of rank 100\n"},
      {&leaf, &leaf, "takes a lock of rank 100 that it holds\n"},
  };
  const auto sentence = [](const std::string& text) { return text.substr(text.find(' ', 7) + 1); };  // after the thread
  for (const auto& [first, second, expected] : cases) {
    {
      const LockGuard outer(*first);
      const LockGuard inner(*second);
    }
    EXPECT_EQ(sentence(caught.Take()), expected);
  }
  leaf.AcquireShared();
  leaf.Release();
  leaf.ReleaseShared();
  EXPECT_EQ(sentence(caught.Take()), "releases a lock of rank 100 that it does not hold\n");
}

TEST(SimFiles, AKeptHandleMakesALinkAndHoldsTheName) {
  constexpr wchar_t kFolder[] = L"C:\\simtest";
  CreateDirectoryW(kFolder, nullptr);
  sim::KeepHandle(kFolder, L"C:\\elsewhere");
  EXPECT_NE(GetFileAttributesW(kFolder) & FILE_ATTRIBUTE_REPARSE_POINT, 0U);
  EXPECT_TRUE(RemoveDirectoryW(kFolder));
  EXPECT_FALSE(CreateDirectoryW(kFolder, nullptr));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
  sim::ForgetMachine();
  EXPECT_TRUE(RemoveDirectoryW(kFolder));
}

[[noreturn]] void ViolateAndExit() {
  sim::SetViolationHandler(nullptr);
  sim::Violation("x");
  ExitProcess(0);
}

TEST(SimViolation, EndsTheProcessWithAFailure) {
  EXPECT_EXIT(ViolateAndExit(), testing::ExitedWithCode(sim::kViolationExitCode), "simulated Windows: x");
}

DWORD Stored(const wchar_t* name) {
  DWORD value = 0;
  DWORD size = sizeof(value);
  RegGetValueW(HKEY_LOCAL_MACHINE, kTestKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}

// Marks what it owns, then changes it; each step only after the one before.
void MarkAndChange(const wchar_t* first, const wchar_t* second) {
  kiosk::win32::RegistryKey key;
  const DWORD one = 1;
  const auto set = [&](const wchar_t* name) {
    return RegSetValueExW(key.Get(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof(one)) == 0;
  };
  RemoveDirectoryW(L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\x");  // the log does not count
  static_cast<void>(
      RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTestKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(), nullptr) == 0 &&
      set(first) && RegFlushKey(key.Get()) == 0 && set(second));
}

sim::FaultScenario Marking(const wchar_t* name, const wchar_t* first, const wchar_t* second) {
  return {.name = name,
          .prepare = [] { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTestKey); },
          .run = [=] { MarkAndChange(first, second); },
          .later =
              [] {
                if (Stored(L"Changed") > Stored(L"Mine")) {
                  std::exit(3);
                }
              },
          .points = 4};
}

class SimHttp : public testing::Test {
 protected:
  SimHttp() { portal_.On(L"POST", L"/", sim::Response{.connectDelay = 5'000}); }
  kiosk::win32::HttpHandle Request(DWORD mode = WINHTTP_FLAG_ASYNC) {
    session_.Reset(WinHttpOpen(L"", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, mode));
    connection_.Reset(WinHttpConnect(session_.Get(), L"portal.test", 80, 0));
    return kiosk::win32::HttpHandle(WinHttpOpenRequest(connection_.Get(), L"POST", L"/", nullptr, nullptr, nullptr, 0));
  }
  BOOL Send(HINTERNET request) {
    return WinHttpSendRequest(request, nullptr, 0, body_, sizeof(body_), sizeof(body_), 0);
  }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 3, 29)};
  sim::ScriptedPortal portal_;
  kiosk::win32::HttpHandle session_;
  kiosk::win32::HttpHandle connection_;
  char body_[4] = "abc";
};

TEST_F(SimHttp, ARequestIsAsynchronousAndHeldToItsContract) {
  const sim::CatchViolations caught;
  Request(0);
  EXPECT_EQ(caught.Take().find("WinHttpOpen: flags 0x0"), 0U);
  kiosk::win32::HttpHandle request = Request();
  EXPECT_TRUE(Send(request.Get()));
  EXPECT_EQ(caught.Take(), "WinHttpSendRequest: without a callback nobody hears of its end\n");
  Send(request.Get());
  EXPECT_NE(caught.Take().find("another operation of the request is not over"), std::string::npos);
  request.Reset();  // torn down a second later
  body_[0] = 'x';
  clock_.RunFor(500);
  EXPECT_EQ(caught.Take(), "");
  clock_.RunFor(1'000);
  EXPECT_NE(caught.Take().find("the body was changed"), std::string::npos);
}

TEST(SimFaults, EveryPointInEveryWayAndAWrongOrderIsFound) {
  sim::RunFaultScenario(Marking(L"right order", L"Mine", L"Changed"));
  testing::TestPartResultArray failures;
  {
    const testing::ScopedFakeTestPartResultReporter reporter(&failures);
    sim::RunFaultScenario(Marking(L"wrong order", L"Changed", L"Mine"));
  }
  // Ended after the change; the flush failed, or was the last; the mark failed.
  EXPECT_EQ(failures.size(), 4);
}

// Windows keeps accounts in a process of its own: the end of a caller in the middle leaves none that is half made.
TEST(SimAccounts, AnAccountIsThereAsAWholeOrNotAtAll) {
  sim::ForgetMachine();
  const std::wstring sid = sim::AddUser(L"Anna");
  sim::ForgetValue(L"Users\\Anna", L"Sid");  // what a caller leaves who ends before the last write
  BYTE* record = nullptr;
  EXPECT_EQ(NetUserGetInfo(nullptr, L"Anna", 3, &record), static_cast<DWORD>(NERR_UserNotFound));
  EXPECT_TRUE(sim::UserNames().empty());
  EXPECT_NE(sim::AddUser(L"Anna"), sid);
  EXPECT_EQ(sim::UserNames().size(), 1U);
}

TEST(SimFaults, CallsFailInTheirOwnWayAndFlushesAreSeen) {
  const sim::FaultPass pass(sim::FaultKind::kFail, 5, ERROR_DISK_FULL);
  MarkAndChange(L"Mine", L"Changed");
  EXPECT_TRUE(pass.Flushed(L"Mine"));
  EXPECT_FALSE(pass.Flushed(L"Changed"));
  EXPECT_EQ(pass.Calls()[1].Text(), "RegSetValueExW(HKLM\\Software\\SimTest\\Mine)");
  EXPECT_EQ(CreateDirectoryW(L"C:\\simtest", nullptr), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_EQ(pass.Calls()[4].Text(), "CreateDirectoryW(c:\\simtest)");
  EXPECT_NE(CreateDirectoryW(L"C:\\simtest", nullptr), 0) << "it failed twice";
  RemoveDirectoryW(L"C:\\simtest");
}

}  // namespace
