// What the computer is like, as lines of text: equal for equal computers.
#pragma once

#include <string>
#include <vector>

namespace proof {

// Users, groups, secrets by name, tasks, power scheme, adapters, services, profile list, and the registry keys that
// kiosk mode touches (docs/operations.md), sorted. A password's value, and the product's own, show as their presence
// alone. What Windows writes down by itself when somebody signs in is left out, with what its own programs bring along,
// and the kit's service.
std::vector<std::string> Snapshot();

// "- " before what is gone, "+ " before what has come.
std::vector<std::string> Differences(const std::vector<std::string>& before, const std::vector<std::string>& after);

}  // namespace proof
