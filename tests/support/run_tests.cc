// Entry of the tests that run against the simulated Windows. Itself not renamed: what GoogleTest does is real.
#include <gtest/gtest.h>

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
