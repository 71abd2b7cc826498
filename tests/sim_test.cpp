// The simulated Windows itself: what the tests of the service lean on.
#include "sim/clock.h"
#include "sim/fault_driver.h"
#include "sim/files.h"
#include "sim/gtest_report.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "sim/pipe.h"
#include "sim/service_control.h"
#include "sim/shutdown.h"
#include "win32/clock.h"
#include "win32/lock.h"
#include "win32/secure_folder.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <wtsapi32.h>

#include <tuple>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

using kiosk::win32::FileHandle;
using kiosk::win32::KernelHandle;
using kiosk::win32::Lock;
using kiosk::win32::LockGuard;
using kiosk::win32::LockRank;
using kiosk::win32::StartThread;

const std::uint64_t kStart = sim::FileTimeOf(2026, 3, 29, 0, 59, 0);
constexpr wchar_t kTestKey[] = L"SOFTWARE\\SimTest";

KernelHandle MakeEvent() { return KernelHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr)); }

TEST(SimClock, TicksAndWallClockMoveTogetherAndApart) {
  sim::VirtualClock clock(kStart, -60);
  SYSTEMTIME local;
  const std::uint64_t ticks = GetTickCount64();
  clock.At(60'000, [&] { clock.SetBias(-120); });
  clock.At(90'000, [&] { clock.SetSystemTime(kStart); });
  Sleep(61'000);
  GetLocalTime(&local);
  EXPECT_EQ(local.wHour * 100 + local.wMinute, 300) << "2 o'clock became 3";
  EXPECT_EQ(kiosk::win32::FileTimeNow(), kStart + 61 * kiosk::win32::kFileTimeSecond);
  clock.RunUntil(100'000);
  EXPECT_EQ(GetTickCount64() - ticks, 100'000U);
  EXPECT_EQ(kiosk::win32::FileTimeNow(), kStart + 10 * kiosk::win32::kFileTimeSecond);
}

TEST(SimClock, AThreadsWaitsTakeTheirVirtualTimeExactly) {
  sim::VirtualClock clock(kStart);
  const KernelHandle wake = MakeEvent();
  std::vector<std::uint64_t> moments;
  const KernelHandle worker = StartThread([&]() noexcept {
    while (moments.size() < 2000) {
      const bool woken = WaitForSingleObject(wake.Get(), 30'000) == WAIT_OBJECT_0;
      moments.push_back(clock.Elapsed() * 2 + (woken ? 1 : 0));
    }
  });
  clock.At(40'000, [&] { SetEvent(wake.Get()); });
  clock.At(70'000, [&] { SetEvent(wake.Get()); });  // at the very end of a wait: the action comes first
  clock.RunUntil(100'000);
  EXPECT_EQ(moments, (std::vector<std::uint64_t>{60'000, 80'001, 140'001, 200'000}));
  EXPECT_EQ(WaitForSingleObject(worker.Get(), 1'000), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(WaitForSingleObject(worker.Get(), INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(clock.Elapsed(), 100'000U + 1996U * 30'000U);
}

// Two threads hand a token to and fro with waits that must never time out, while a third lets time run: a clock that
// jumped while a signal is on its way would end one of the waits.
TEST(SimClock, NoJumpWhileASignalIsOnItsWay) {
  sim::VirtualClock clock(kStart);
  const KernelHandle ping = MakeEvent();
  const KernelHandle pong = MakeEvent();
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

TEST(SimClock, AWaitForALockIsAWaitAndThePoolCounts) {
  sim::VirtualClock clock(kStart);
  static Lock lock{LockRank::kPairing};
  std::uint64_t takenAt = 0;
  lock.Acquire();
  const KernelHandle waiter = StartThread([&]() noexcept {
    const LockGuard guard(lock);
    takenAt = clock.Elapsed();
  });
  Sleep(7'000);
  lock.Release();
  WaitForSingleObject(waiter.Get(), INFINITE);
  EXPECT_EQ(takenAt, 7'000U);
  static std::uint64_t itemAt = 0;
  QueueUserWorkItem(
      [](void*) -> DWORD {
        Sleep(500);
        return itemAt = GetTickCount64(), 0;
      },
      nullptr, 0);
  const std::uint64_t queued = GetTickCount64();
  clock.RunFor(1'000);
  EXPECT_EQ(itemAt, queued + 500);
}

TEST(SimClock, TheWatchdogNamesWhoHoldsTime) {
  sim::VirtualClock clock(kStart);
  clock.SetWatchdog(50);
  const KernelHandle set = MakeEvent();
  const KernelHandle release = MakeEvent();
  // A call that the simulation does not know holds the time.
  const KernelHandle blocked =
      StartThread([&]() noexcept { SignalObjectAndWait(set.Get(), release.Get(), INFINITE, FALSE); });
  const sim::CatchViolations caught;
  clock.RunUntil(1'000);
  const std::string text = caught.Take();
  EXPECT_TRUE(text.starts_with("virtual time stands still at 0 ms; thread") &&
              text.find("runs or blocks outside of a simulated wait") != std::string::npos)
      << text;
  SetEvent(release.Get());
  clock.RunUntil(1'000);
  EXPECT_EQ(caught.Take(), "");
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

TEST(SimFaults, EveryPointInEveryWayAndAWrongOrderIsFound) {
  sim::RunFaultScenario(Marking(L"right order", L"Mine", L"Changed"));
  testing::TestPartResultArray failures;
  {
    const testing::ScopedFakeTestPartResultReporter reporter(&failures);
    sim::RunFaultScenario(Marking(L"wrong order", L"Changed", L"Mine"));
  }
  // Ended after the change; the flush failed, was not reached or was the last; the mark failed or was not reached.
  EXPECT_EQ(failures.size(), 6);
}

TEST(SimFaults, CallsFailInTheirOwnWayAndFlushesAreSeen) {
  {
    sim::FaultPass pass;
    MarkAndChange(L"Mine", L"Changed");
    EXPECT_TRUE(pass.Flushed(L"Mine"));
    EXPECT_FALSE(pass.Flushed(L"Changed"));
    EXPECT_EQ(pass.Calls()[1].Text(), "RegSetValueExW(HKLM\\Software\\SimTest\\Mine)");
  }
  sim::FaultPass pass(sim::FaultKind::kFail, 2, ERROR_DISK_FULL);
  EXPECT_NE(CreateDirectoryW(L"C:\\simtest", nullptr), 0);
  EXPECT_EQ(RemoveDirectoryW(L"C:\\simtest"), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_NE(RemoveDirectoryW(L"C:\\simtest"), 0);
  EXPECT_EQ(pass.Calls()[2].Text(), "RemoveDirectoryW(c:\\simtest)");
}

TEST(SimService, TheTestIsTheManager) {
  sim::ServiceHost host;
  static DWORD seen[3];
  SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerExW(
      L"X",
      [](DWORD control, DWORD type, void* data, void*) -> DWORD {
        seen[0] = control;
        seen[1] = type;
        seen[2] = static_cast<WTSSESSION_NOTIFICATION*>(data)->dwSessionId;
        return 120;
      },
      nullptr);
  EXPECT_EQ(host.Deliver(SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_LOGON, 2), 120U);
  EXPECT_EQ(seen[0] * 10000 + seen[1] * 100 + seen[2], 140502U);
  SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, 0, 0, 0, 0};
  SetServiceStatus(handle, &status);
  status.dwCurrentState = SERVICE_STOP_PENDING;
  const sim::CatchViolations caught;
  SetServiceStatus(handle, &status);
  EXPECT_EQ(caught.Take(), "SetServiceStatus: state 3 after SERVICE_STOPPED\n");
}

TEST(SimPipe, TheFirstInstanceIsEnforced) {
  const auto create = [](DWORD first) {
    return FileHandle(CreateNamedPipeW(L"\\\\.\\pipe\\sim_test", PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first, 0,
                                       255, 64, 64, 0, nullptr));
  };
  {
    const FileHandle one = create(FILE_FLAG_FIRST_PIPE_INSTANCE);
    EXPECT_TRUE(one && create(0));
    EXPECT_FALSE(create(FILE_FLAG_FIRST_PIPE_INSTANCE));
    EXPECT_EQ(sim::PipeCreations().back().error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
  }
  EXPECT_TRUE(create(FILE_FLAG_FIRST_PIPE_INSTANCE));
}

TEST(SimFiles, LinksAreFollowedOrNotAsWindowsDoes) {
  sim::ForgetMachine();
  const auto exists = [](const wchar_t* path) { return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES; };
  for (const wchar_t* left : {L"C:\\sim_a\\Link", L"C:\\sim_a", L"C:\\sim_b\\Through", L"C:\\sim_b"}) {
    RemoveDirectoryW(left);  // of a run that was ended
  }
  CreateDirectoryW(L"C:\\sim_a", nullptr);
  CreateDirectoryW(L"C:\\sim_b", nullptr);
  sim::MakeJunction(L"C:\\sim_a\\Link", L"C:\\sim_b");
  EXPECT_EQ(GetFileAttributesW(L"C:\\sim_a\\link") & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY), 0x410U);
  CreateDirectoryW(L"C:\\sim_a\\link\\Through", nullptr);
  EXPECT_TRUE(exists(L"C:\\sim_b\\Through"));
  WIN32_FIND_DATAW data;
  HANDLE search = FindFirstFileW(L"C:\\sim_a\\*k", &data);
  EXPECT_EQ(data.dwReserved0, static_cast<DWORD>(IO_REPARSE_TAG_MOUNT_POINT));
  FindClose(search);
  auto result = kiosk::win32::SecureFolder(L"C:\\sim_a\\Link", kiosk::win32::kPrivateFolderSddl,
                                                 kiosk::win32::ForeignFolder::kTakeOver);
  EXPECT_TRUE(result && result.replaced);
  result.folder.Reset();
  EXPECT_EQ(sim::FileSecurity(L"c:\\sim_a\\LINK"), kiosk::win32::kPrivateFolderSddl);
  EXPECT_TRUE(exists(L"C:\\sim_b\\Through") && !exists(L"C:\\sim_a\\Link\\Through"));
  EXPECT_EQ(sim::FileSecurity(L"C:\\sim_b"), L"");
  for (const wchar_t* path : {L"C:\\sim_b\\Through", L"C:\\sim_b", L"C:\\sim_a\\Link", L"C:\\sim_a"}) {
    EXPECT_NE(RemoveDirectoryW(path), 0) << GetLastError();
  }
  EXPECT_EQ(sim::FileSecurity(L"C:\\sim_a\\Link"), L"");
}

struct HttpCase {
  sim::Response response;
  DWORD error;
  std::uint64_t duration;
};

// Sends a request over TLS, which another thread closes after a second if wanted; the error.
DWORD Post(std::string& body, bool closeIt) {
  DWORD limit = 15'000;
  char sent[] = "hello";
  const HINTERNET session = WinHttpOpen(L"agent", WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, nullptr, nullptr, 0);
  WinHttpSetTimeouts(session, 15'000, 15'000, 15'000, 15'000);
  const HINTERNET connection = WinHttpConnect(session, L"portal", 443, 0);
  const HINTERNET request =
      WinHttpOpenRequest(connection, L"POST", L"/x?y", nullptr, nullptr, nullptr, WINHTTP_FLAG_SECURE);
  WinHttpSetOption(request, WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &limit, sizeof(limit));
  const auto close = [=]() noexcept {
    Sleep(closeIt ? 1'000 : 0);
    WinHttpCloseHandle(request);
  };
  const KernelHandle closer = closeIt ? StartThread(close) : KernelHandle();
  bool good = WinHttpSendRequest(request, L"A: b\r\n", static_cast<DWORD>(-1), sent, 5, 5, 0) &&
              WinHttpReceiveResponse(request, nullptr);
  char part[3];
  for (DWORD got = 1; good && got != 0; body.append(part, got)) {
    good = WinHttpReadData(request, part, sizeof(part), &got);
  }
  const DWORD error = good ? 0 : GetLastError();
  closeIt ? static_cast<void>(WaitForSingleObject(closer.Get(), INFINITE)) : close();
  WinHttpCloseHandle(connection);
  WinHttpCloseHandle(session);
  return error;
}

TEST(SimHttp, PhasesTakeTimeAndFail) {
  sim::VirtualClock clock(kStart);
  sim::ScriptedPortal portal;
  const HttpCase cases[] = {
      {{.body = "abcdefg", .chunk = 4, .connectDelay = 100, .headersDelay = 20, .chunkDelay = 3}, 0, 126},
      {{.connectDelay = INFINITE}, ERROR_WINHTTP_TIMEOUT, 15'000},
      {{.headersDelay = 15'001}, ERROR_WINHTTP_TIMEOUT, 15'000},
      {{.sendError = ERROR_WINHTTP_CANNOT_CONNECT}, ERROR_WINHTTP_CANNOT_CONNECT, 0},
      {{.body = "abc", .bodyError = ERROR_WINHTTP_CONNECTION_ERROR}, ERROR_WINHTTP_CONNECTION_ERROR, 0},
  };
  for (const HttpCase& each : cases) {
    std::string body;
    const std::uint64_t start = clock.Elapsed();
    portal.On(L"POST", L"/x", [&](const sim::Request&) { return each.response; });
    EXPECT_EQ(Post(body, false), each.error);
    EXPECT_EQ(clock.Elapsed() - start, each.duration);
    EXPECT_EQ(body, each.response.body);
  }
  std::string body;
  portal.On(L"POST", L"/x", [](const sim::Request&) { return sim::Response{.headersDelay = 9'000}; });
  EXPECT_EQ(Post(body, true), static_cast<DWORD>(ERROR_WINHTTP_OPERATION_CANCELLED));
  EXPECT_EQ(portal.Requests()[1].at, 126U);
  EXPECT_EQ(portal.Requests()[1].body, "hello");
  EXPECT_EQ(sim::OpenHttpHandles(), 0);
}

TEST(SimShutdown, NeedsThePrivilege) {
  sim::ForgetShutdown();
  wchar_t message[] = L"Bye";
  const auto ask = [&] {
    return InitiateSystemShutdownExW(nullptr, message, 0, TRUE, TRUE, 0x80020004) ? 0 : GetLastError();
  };
  EXPECT_EQ(ask(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  KernelHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put());
  TOKEN_PRIVILEGES privileges{1, {{{}, SE_PRIVILEGE_ENABLED}}};
  LookupPrivilegeValueW(nullptr, SE_SHUTDOWN_NAME, &privileges.Privileges[0].Luid);
  AdjustTokenPrivileges(token.Get(), FALSE, &privileges, 0, nullptr, nullptr);
  EXPECT_EQ(ask(), 0U);
  EXPECT_EQ(sim::PendingShutdown()->reason, 0x80020004U);
  EXPECT_EQ(ask(), static_cast<DWORD>(ERROR_SHUTDOWN_IN_PROGRESS));
  sim::ForgetShutdown();
}

}  // namespace
