// Makes a violation fail the running GoogleTest case. Included by every test file that relies on the simulation.
#pragma once

#include "sim/seam.h"

#include <gtest/gtest.h>

namespace sim {

inline const bool violationsFailTests = [] {
  SetViolationHandler([](const char* sentence) { ADD_FAILURE() << "simulated Windows: " << sentence; });
  return true;
}();

}  // namespace sim
