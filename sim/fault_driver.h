// One fault at every point of an operation, for any area.
//
//   TEST(EnrolFaults, EveryPoint) {
//     sim::RunFaultScenario({.name = "store the token",
//                            .prepare = [] { ... },            // the machine before
//                            .run = [] { ... },                // the operation; its result is of no matter
//                            .later = [] { ... EXPECT_... }}); // the next start, and what must hold after it
//   }
//
// A pass counts the calls that change the machine; then for every call and every way to fail (each error, the end of
// the process before it, the end after it) `prepare` and `run` happen in a new process and `later` in another one.
// Since every change is numbered, the end before a call is the end after the call before it: only the first has one of
// its own. The processes run the same test again, so that what stands before RunFaultScenario (and in SetUp) happens in
// each of them and must leave the machine alone. Statements after it run in the first process only.
#pragma once

#include "sim/faults.h"
#include "sim/gtest_report.h"
#include "sim/machine.h"
#include "win32/program_path.h"

#include <process.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace sim {

struct FaultScenario {
  std::wstring name;
  std::function<void()> prepare = {};
  std::function<void()> run = {};
  std::function<void()> later = {};
  std::vector<DWORD> errors = {ERROR_ACCESS_DENIED};
  int points = 0;  // how many there must be; 0: any number but none
  // To share a long scenario among tests that run side by side: this one takes every `parts`-th point from `part` on.
  int part = 0;
  int parts = 1;
};

// Starts the running test once more, in a process of its own with one more argument; what _wspawnl returns.
inline intptr_t StartThisTest(int mode, const wchar_t* argument) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string filter = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
  return _wspawnl(mode, kiosk::win32::ProgramPath().c_str(), L"test", L"--gtest_brief=1",
                  std::wstring(filter.begin(), filter.end()).c_str(), argument, nullptr);
}

namespace fault_driver {

inline constexpr wchar_t kArgument[] = L"--fault-child=";
inline constexpr wchar_t kTraceKey[] = L"SOFTWARE\\SimulatedFaults";  // apart from the machine, which may be reset

// In a child: "<phase> <kind> <point> <error> <name>", from the command line; the phase is "run" or "later".
struct Role {
  wchar_t phase[8] = L"";
  int kind = 0;
  int at = 0;
  unsigned error = 0;
  std::wstring name;
};

inline bool ReadRole(Role& role) {
  const wchar_t* text = wcsstr(GetCommandLineW(), kArgument);
  int used = 0;
  if (text == nullptr || swscanf(text + wcslen(kArgument), L"%7ls %d %d %u %n", role.phase, &role.kind, &role.at,
                                 &role.error, &used) < 4) {
    return false;
  }
  role.name = text + wcslen(kArgument) + used;
  role.name.resize(role.name.find(L'"'));
  return true;
}

[[noreturn]] inline void PlayRole(const FaultScenario& scenario, const Role& role) {
  if (std::wstring_view(role.phase) == L"later") {
    scenario.later();
  } else {
    const FaultKind kind = static_cast<FaultKind>(role.kind);
    scenario.prepare();
    const std::vector<ChangeCall> calls = [&] {
      const FaultPass pass(kind, role.at, role.error);
      scenario.run();
      return pass.Calls();
    }();
    EXPECT_GE(calls.size(), static_cast<std::size_t>(role.at)) << "the point was not reached";
    for (std::size_t i = 0; kind == FaultKind::kCount && i < calls.size(); ++i) {
      const std::string text = calls[i].Text();
      RegSetKeyValueA(HKEY_LOCAL_MACHINE, Narrow(kTraceKey).c_str(), std::to_string(i + 1).c_str(), REG_SZ,
                      text.c_str(), static_cast<DWORD>(text.size() + 1));
    }
  }
  // Without the end of a process that C++ knows: threads that are detached go on to the last moment.
  static_cast<void>(std::fflush(nullptr));
  TerminateProcess(GetCurrentProcess(), testing::Test::HasFailure() ? 1 : 0);
  Sleep(INFINITE);
  __builtin_unreachable();
}

inline std::string CallText(int at) {
  char text[512] = "?";
  DWORD size = sizeof(text);
  RegGetValueA(HKEY_LOCAL_MACHINE, Narrow(kTraceKey).c_str(), std::to_string(at).c_str(), RRF_RT_REG_SZ, nullptr, text,
               &size);
  return text;
}

// Runs this test again in the role; the exit code.
inline intptr_t RunChild(const FaultScenario& scenario, const wchar_t* phase, FaultKind kind, int at, DWORD error) {
  const std::wstring role = L"\"" + std::wstring(kArgument) + phase + L" " + std::to_wstring(static_cast<int>(kind)) +
                            L" " + std::to_wstring(at) + L" " + std::to_wstring(error) + L" " + scenario.name + L"\"";
  static_cast<void>(std::fflush(stdout));
  // A process that could not be started at all is tried again; -1 with no error is the child's own exit code.
  intptr_t code = -1;
  for (int tries = 0; tries < 3; ++tries) {
    errno = 0;
    code = StartThisTest(_P_WAIT, role.c_str());
    if (code != -1 || errno == 0) {
      break;
    }
    std::printf("faults: a child was not started (errno %d)\n", errno);
  }
  return code;
}

inline void Round(const FaultScenario& scenario, FaultKind kind, int at, DWORD error) {
  const char* const ways[] = {"no fault", "failed", "process ended before", "process ended after"};
  const intptr_t code = RunChild(scenario, L"run", kind, at, error);
  const bool ends = kind == FaultKind::kEndBefore || kind == FaultKind::kEndAfter;
  const std::string where = Narrow(scenario.name) + ", point " + std::to_string(at) + " " + CallText(at) + ", " +
                            ways[static_cast<int>(kind)] + (error != 0 ? " with " + std::to_string(error) : "");
  EXPECT_EQ(code, ends ? static_cast<intptr_t>(kFaultExitCode) : 0) << where << ": the run";
  EXPECT_EQ(RunChild(scenario, L"later", kind, at, error), 0) << where << ": what follows";
}

}  // namespace fault_driver

// In `later`: the call that failed, as "Function(object)"; empty when none did, or the process ended there.
inline std::string FailedCall() {
  fault_driver::Role role;
  return fault_driver::ReadRole(role) && role.kind == static_cast<int>(FaultKind::kFail)
             ? fault_driver::CallText(role.at)
             : std::string();
}

inline void RunFaultScenario(const FaultScenario& scenario) {
  using namespace fault_driver;
  Role role;
  if (ReadRole(role)) {
    if (role.name == scenario.name) {
      PlayRole(scenario, role);
    }
    return;
  }
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTraceKey);
  Round(scenario, FaultKind::kCount, 0, 0);
  int points = 0;
  while (CallText(points + 1) != "?") {
    ++points;
  }
  EXPECT_TRUE(scenario.points == 0 ? points > 0 : points == scenario.points)
      << Narrow(scenario.name) << ": " << points << " calls changed the machine";
  for (int at = 1 + scenario.part; at <= points; at += scenario.parts) {
    for (const DWORD error : scenario.errors) {
      Round(scenario, FaultKind::kFail, at, error);
    }
    if (at == 1) {
      Round(scenario, FaultKind::kEndBefore, at, 0);
    }
    Round(scenario, FaultKind::kEndAfter, at, 0);
  }
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTraceKey);
  std::printf("faults: %s: part %d of %d of %d points, %zu ways each\n", Narrow(scenario.name).c_str(),
              scenario.part + 1, scenario.parts, points, scenario.errors.size() + 1);
}

}  // namespace sim
