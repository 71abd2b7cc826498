// The contract cases, each group in a process of its own: a crash or a call that never ends costs no other its answers.
#pragma once

#include "tests/contract/contract.h"

#include <functional>
#include <string>

namespace proof {

// Null when there is no such group.
const contract::Group* FindGroup(const std::string& name);

// In the child: asks each case of the group and prints a line, which RunGroup reads, before the next begins.
void AskGroup(const contract::Group& group);

// In the parent: the answers in their order. What the process did not come to could not run.
void RunGroup(const contract::Group& group,
              const std::function<void(const contract::Case& each, const contract::Result& answer)>& take);

}  // namespace proof
