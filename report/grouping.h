// Groups threads that do the same.
#pragma once

#include <vector>

#include "incident.h"

namespace report {

// The threads with the same user functions, largest group first, then by the lowest id. Threads of
// which the log has no user stack are a group, too: one without functions.
std::vector<Group> GroupThreads(const std::vector<Thread>& threads);

}  // namespace report
