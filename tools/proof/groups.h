// The contract cases, each group in a process of its own: a crash or a call that never ends costs no other its answers.
#pragma once

#include "tests/contract/contract.h"

#include <string>
#include <vector>

namespace proof {

// In the child: asks each case of the group and prints a line, which AnswersOf reads, before the next begins. False
// when there is no such group.
bool AskGroup(const std::string& name);

// In the parent: the answers to the group's cases. What the process did not come to could not run.
std::vector<contract::Result> AnswersOf(const contract::Group& group);

}  // namespace proof
