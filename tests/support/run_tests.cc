// Entry of the tests that run against the simulated Windows. Itself not renamed: what GoogleTest does is real.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  const int result = RUN_ALL_TESTS();
  // Detached threads of the service and of its pool go on to the last moment: what static destructors take away, they
  // may use.
  static_cast<void>(std::fflush(nullptr));
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(result));
  return result;
}
