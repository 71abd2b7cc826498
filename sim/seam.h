// The seam between the service and the simulated Windows.
//
// A simulated function is written with SIM and takes the place of the Windows function of that name in every object
// whose symbols were renamed (tools/build/sim_symbols.sh): the service's library and the tests. The simulation itself
// is not renamed, so in here the plain name still is the real function.
#pragma once

#include "win32/winapi.h"

#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

// Defines the simulated `name`; a signature that differs from the declaration in the Windows headers does not compile.
#define SIM(ret, name, ...)                                                   \
  extern "C" ret WINAPI sim_##name(__VA_ARGS__);                              \
  static_assert(std::is_same_v<decltype(sim_##name), decltype(::name)>,       \
                #name " is declared otherwise by the headers of Windows");    \
  extern "C" {                                                                \
  extern decltype(&sim_##name) __imp_sim_##name;                              \
  __attribute__((used)) decltype(&sim_##name) __imp_sim_##name = &sim_##name; \
  }                                                                           \
  extern "C" ret WINAPI sim_##name(__VA_ARGS__)

namespace sim {

// The exit code of a process that broke a contract and would have ended with 0.
inline constexpr int kViolationExitCode = 70;

// A caller broke a documented contract. The sentence goes to standard error, to the area "Violations" of the simulated
// machine, and to the handler (sim/gtest_report.h makes the running test fail); the process cannot end with 0 any more.
[[gnu::format(__MINGW_PRINTF_FORMAT, 1, 2)]] void Violation(const char* format, ...);

using ViolationHandler = void (*)(const char* sentence);
void SetViolationHandler(ViolationHandler handler);

// For tests of the simulation itself: violations in its lifetime are collected, from any thread, and have no effect.
class CatchViolations {
 public:
  CatchViolations();
  CatchViolations(const CatchViolations&) = delete;
  CatchViolations& operator=(const CatchViolations&) = delete;
  ~CatchViolations();
  // What was collected so far, one sentence a line; empties the collection.
  static std::string Take();
};

// UTF-16 as UTF-8, for messages.
std::string Narrow(const std::wstring& text);

}  // namespace sim
