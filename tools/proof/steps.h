// The life of a terminal and the rows around it, in their order: a table in which a new promise is one more line.
#pragma once

#include "tests/contract/contract.h"

#include <span>

namespace proof {

struct Step {
  contract::Case what;  // its name is the id, "life/pair"
  enum Kind {
    kStays,
    kRestarts,  // Windows restarts in it; with the permission for that alone
    kMinutes,   // waits for what the product does once a minute; not with --quick
  } kind = kStays;
};

std::span<const Step> Steps();

}  // namespace proof
