// What a fault leaves behind: a line in the log and a dump that a debugger opens.
#include "service/crash.h"

#include "log/log.h"
#include "log/log_settings.h"
#include "log/shipper/shipper.h"
#include "sim/event_log.h"
#include "sim/threads.h"
#include "state/folders.h"
#include "tests/support/spool.h"
#include "win32/handle.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace kiosk::service {
namespace {

class CrashTest : public test::CleanMachine {};

std::vector<std::wstring> Dumps() {
  std::vector<std::wstring> paths;
  for (const std::wstring& name : test::ListFolder(state::kLogRoot)) {
    if (name.ends_with(L".dmp")) {
      paths.push_back(log::shipper::kRoot + L"\\" + name);
    }
  }
  return paths;
}

TEST_F(CrashTest, AFaultLeavesOneLineADumpAndAnEntry) {
  test::SetString(log::kSettingsKey, L"LogEndpoint", L"https://127.0.0.1:9/gelf");
  InstallCrashHandler();
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
  CONTEXT context{};
  RtlCaptureContext(&context);
  EXCEPTION_RECORD record{};
  EXCEPTION_POINTERS details{&record, &context};

  // An exception of C++ goes on, so that terminate can tell that nobody wanted it.
  record.ExceptionCode = 0x20474343;
  EXPECT_EQ(filter(&details), EXCEPTION_CONTINUE_EXECUTION);
  EXPECT_TRUE(Dumps().empty());

  record.ExceptionCode = static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION);
  record.ExceptionAddress = reinterpret_cast<void*>(&InstallCrashHandler);
  EXPECT_EQ(filter(&details), EXCEPTION_EXECUTE_HANDLER);
  // The service would end after 10 s, whatever has been written by then; a busy machine needs longer for the whole of
  // it. The last thing is the entry in the event log.
  std::vector<std::string> entries;
  for (int i = 0; i < 600 && entries.empty(); ++i) {
    Sleep(100);
    entries = sim::EventLogEntries();
  }
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_TRUE(entries[0].starts_with("NorvaneKiosk error 102 [0xc0000005] [program+0x")) << entries[0];
  std::string spooled;
  for (const std::wstring& name : log::shipper::Segments()) {
    spooled += test::ReadWholeFile(log::shipper::kDrop + L"\\" + name);
  }
  EXPECT_NE(spooled.find("\"fault 0xc0000005 at program+0x"), std::string::npos) << spooled;
  const std::vector<std::wstring> dumps = Dumps();
  ASSERT_EQ(dumps.size(), 1U);
  const std::string content = test::ReadWholeFile(dumps.front());
  EXPECT_EQ(content.substr(0, 4), "MDMP");
  EXPECT_GT(content.size(), 4096U);
  const std::vector<std::string> lines = test::LogTexts();
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines[0].starts_with("ERROR fault 0xc0000005 at program+0x")) << lines[0];
  EXPECT_EQ(test::CountLogged("ERROR fault: dump in " + win32::ToNarrow(dumps.front())), 1);
  EXPECT_FALSE(test::Exists(log::shipper::kRoot + L"\\NorvaneKiosk.dmp.part"));

  // A second fault waits for the first one's report and adds nothing.
  EXPECT_EQ(filter(&details), EXCEPTION_EXECUTE_HANDLER);
  EXPECT_EQ(Dumps().size(), 1U);
  EXPECT_EQ(test::LogTexts().size(), lines.size());
}

TEST_F(CrashTest, WithoutItsEventsThereIsNoHandlerAndNoThreadOfIt) {
  SetUnhandledExceptionFilter(nullptr);
  const sim::NoEvents none;
  InstallCrashHandler();
  EXPECT_EQ(SetUnhandledExceptionFilter(nullptr), nullptr);
  // A thread that waits for no event would report a fault at once that nobody has had, and end the process with it.
  EXPECT_EQ(WaitForSingleObject(GetCurrentProcess(), 300), DWORD{WAIT_TIMEOUT});
}

// What ends the second process, by the name on its command line.
[[gnu::noinline]] int FillStack(volatile int& depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  depth = depth + 1;
  return depth < 0 ? 0 : FillStack(depth) + frame[0];
}

void OverflowStack() noexcept {
  volatile int depth = 0;
  FillStack(depth);
}

DWORD WINAPI OverflowPoolThread(void* /*context*/) noexcept {
  OverflowStack();
  return 0;
}

// The pointer is volatile as well: a write to what it knows to be nothing is one that GCC leaves out at -O1.
void TouchNothing() noexcept {
  volatile int* volatile nothing = nullptr;
  *nothing = 1;
}

void FaultInTheHeap() noexcept {
  HANDLE heaps[16];
  for (DWORD i = GetProcessHeaps(std::size(heaps), heaps); i != 0; --i) {
    HeapLock(heaps[i - 1]);
  }
  TouchNothing();
}

struct Fault {
  const wchar_t* name;
  void (*happen)();
  DWORD code;
  bool wait;  // for its end, which takes up to 10 s; the others are ended after their line
};

constexpr Fault kFaults[] = {
    {L"--first-thread", OverflowStack, EXCEPTION_STACK_OVERFLOW, true},
    {L"--small-thread", [] { win32::StartThread([]() noexcept { OverflowStack(); }, win32::kSmallStack); },
     EXCEPTION_STACK_OVERFLOW, false},
    {L"--pool-thread", [] { QueueUserWorkItem(OverflowPoolThread, nullptr, 0); }, EXCEPTION_STACK_OVERFLOW, false},
    // With what the reporter would like to use held by the thread that is gone.
    {L"--in-the-heap", FaultInTheHeap, EXCEPTION_ACCESS_VIOLATION, false},
    {L"--in-the-central-log",
     [] {
       log::shipper::HandOff(log::kNotice, log::kKiosk, {static_cast<char*>(nullptr), 9});
     },
     EXCEPTION_ACCESS_VIOLATION, false},
};

// The second process is this test once more.
TEST(CrashProcesses, EveryFaultLeavesItsLine) {
  for (const Fault& fault : kFaults) {
    if (test::ThisTestIs(fault.name)) {
      InstallCrashHandler();
      log::Log(log::kNotice, log::kKiosk, "ready");
      fault.happen();
      Sleep(INFINITE);
    }
  }
  for (const Fault& fault : kFaults) {
    const std::string name = win32::ToNarrow(fault.name);
    test::ResetComputer();
    test::SetString(log::kSettingsKey, L"LogEndpoint", L"https://127.0.0.1:9/gelf");
    const win32::KernelHandle child = test::StartThisTestAs(fault.name);
    char line[64];
    static_cast<void>(std::snprintf(line, std::size(line), "ERROR fault 0x%08lx at ", fault.code));
    const auto told = [&line] {
      const std::vector<std::string> texts = test::LogTexts();
      return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) { return text.starts_with(line); });
    };
    for (int i = 0; i < 400 && !told() && WaitForSingleObject(child.Get(), 50) == WAIT_TIMEOUT; ++i) {
    }
    EXPECT_TRUE(told()) << name;
    DWORD code = 0;
    WaitForSingleObject(child.Get(), fault.wait ? 30'000 : 0);
    GetExitCodeProcess(child.Get(), &code);
    EXPECT_TRUE(code == fault.code || (!fault.wait && code == STILL_ACTIVE)) << name << ": " << code;
    TerminateProcess(child.Get(), 1);
    WaitForSingleObject(child.Get(), INFINITE);
  }
}

}  // namespace
}  // namespace kiosk::service
